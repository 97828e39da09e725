// The encoder with any parameters and any audio. Every frame gives one access unit, of which a
// parser accounts for every bit.
//
// Input: sample rate (1 byte: index of a rate, otherwise hundreds of Hz), channels (1), bit
// rate in units of 500 bit/s (2), flags (1), then the frames, each after its kind (1).
#include "aacenc/aac_enc.h"
#include "fuzz/input.h"
#include "recovery/aac_frame.h"

#include <array>
#include <cstring>

static constexpr std::array<int32_t, 9> kSampleRates = {48000, 44100, 32000, 24000, 22050,
                                                        16000, 12000, 11025, 8000};
static constexpr size_t kMaxFrames = 24;

using pcm_frame = std::array<int16_t, 2 * AACENC_FRAME_SAMPLES>;

static int live_blocks;

static void *count_malloc(size_t size)
{
    live_blocks++;
    return std::malloc(size);
}

static void count_free(void *block)
{
    live_blocks -= block != nullptr ? 1 : 0;
    std::free(block);
}

static void fill_frame(fuzz_input &input, pcm_frame &pcm)
{
    const uint32_t kind = input.u8() % 5;
    const int16_t level = static_cast<int16_t>(input.u16());
    const uint32_t period = input.u8() + 1;
    uint32_t noise = input.u16();
    for (size_t i = 0; i < pcm.size(); i++) {
        noise = noise * 1664525 + 1013904223;
        const int16_t random = static_cast<int16_t>(noise >> 16);
        const bool is_high = i / period % 2 != 0;
        const std::array<int, 4> values = {level, is_high ? level : ~level,
                                           i == noise % pcm.size() ? level : 0,
                                           random * level / 32768};
        pcm[i] = kind == 4 ? static_cast<int16_t>(input.u16()) : static_cast<int16_t>(values[kind]);
    }
}

struct tested_encoder {
    AacEncCallbacks callbacks = {count_malloc, count_free, std::memcpy,
                                 std::memset,  nullptr,    std::memmove};
    AacEncAudioInfo audio = {};
    AacEncStreamInfo stream = {};
    AacEncInitParams params = {};
    void *handle = nullptr;
};

static void describe(fuzz_input &input, tested_encoder &encoder)
{
    const uint32_t rate = input.u8();
    encoder.audio.sampleRate =
        rate < kSampleRates.size() ? kSampleRates[rate] : static_cast<int32_t>(rate * 100);
    encoder.audio.channels = static_cast<int32_t>(input.u8() % 4);
    encoder.stream.bitRate = static_cast<int32_t>(input.u16() * 500);
    const uint32_t flags = input.u8();
    encoder.audio.deinterleave = flags & 1;
    encoder.params = {.audioInfo = &encoder.audio,
                      .streamInfo = &encoder.stream,
                      .callbacks = &encoder.callbacks,
                      .outputFormat = static_cast<uint8_t>(flags & 2),
                      .pns = static_cast<int32_t>(flags & 4),
                      .tns = static_cast<int32_t>(flags & 8),
                      .mpeg2Id = static_cast<int32_t>(flags >> 4 & 1)};
}

static void encode_frame(fuzz_input &input, tested_encoder &encoder, int32_t sampling_index)
{
    static pcm_frame pcm;
    fill_frame(input, pcm);
    encoder.audio.pcm = pcm.data();
    encoder.audio.pcmSecond = pcm.data() + AACENC_FRAME_SAMPLES;
    Bytes output(AACENC_OUTPUT_BYTES);
    encoder.stream.output = output.data();
    require(QVR_AAC_ENC(AACENC_OP_ENCODE, &encoder.handle, &encoder.audio, &encoder.stream) ==
                AACENC_OK,
            "every frame can be coded");
    const size_t header_bytes = encoder.params.outputFormat == AACENC_FORMAT_ADTS ? 7 : 0;
    const size_t output_bytes = static_cast<size_t>(encoder.stream.outputBytes);
    require(output_bytes > header_bytes && output_bytes <= output.size(), "the access unit fits");
    const int32_t unit_bytes = static_cast<int32_t>(output_bytes - header_bytes);
    const aac_frame frame =
        read_aac_frame(output.data() + header_bytes, unit_bytes, sampling_index, nullptr);
    require(frame.fault == nullptr, frame.fault != nullptr ? frame.fault : "");
    require(frame.bytes == unit_bytes, "the frame fills the access unit");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input = {{data, size}};
    tested_encoder encoder;
    describe(input, encoder);
    if (QVR_AAC_ENC(AACENC_OP_INIT, &encoder.handle, &encoder.params, nullptr) == AACENC_OK) {
        const auto rate =
            std::find(kSampleRates.begin(), kSampleRates.end(), encoder.audio.sampleRate);
        for (size_t i = 0; i < kMaxFrames && !input.left.empty(); i++) {
            encode_frame(input, encoder, 3 + static_cast<int>(rate - kSampleRates.begin()));
        }
        require(QVR_AAC_ENC(AACENC_OP_CLOSE, &encoder.handle, nullptr, nullptr) == AACENC_OK,
                "an open encoder closes");
    }
    require(encoder.handle == nullptr && live_blocks == 0, "nothing is kept");
    return 0;
}

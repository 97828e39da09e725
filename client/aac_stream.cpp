#include "client/aac_stream.h"

#include "client/failure.h"
#include "client/input/aac_rates.h"

#include <cstdlib>
#include <cstring>

static const AacEncCallbacks memory_callbacks = {
    .allocate = std::malloc,
    .release = std::free,
    .copy = std::memcpy,
    .fill = std::memset,
    .reallocate = std::realloc,
    .move = std::memmove,
};

static constexpr int kBitRateMin = 16000;
static constexpr int kBitRateStep = 1000;

// The encoder refuses these with a number only.
static void check_settings(const aac_settings &settings)
{
    if (!is_encoder_rate(settings.rate)) {
        throw failure(
            exit_code::unsupported,
            "its sampling rate is " + std::to_string(settings.rate) +
                " Hz; the encoder supports 8000, 11025, 12000, 16000, 22050, 24000, 32000, "
                "44100 and 48000 Hz");
    }
    if (settings.channels != 1 && settings.channels != 2) {
        throw failure(exit_code::unsupported, "it has " + std::to_string(settings.channels) +
                                                  " channels; the encoder supports one or two");
    }
    if (settings.bit_rate < kBitRateMin || settings.bit_rate % kBitRateStep != 0) {
        throw failure(exit_code::usage, "--bitrate takes a multiple of 1000, at least 16000, not " +
                                            std::to_string(settings.bit_rate));
    }
}

aac_stream::~aac_stream()
{
    if (encoder != nullptr) {
        (void)QVR_AAC_ENC(AACENC_OP_CLOSE, &encoder, nullptr, nullptr);
    }
}

void aac_stream_open(aac_stream &stream, const aac_settings &settings)
{
    check_settings(settings);
    stream.settings = settings;
    AacEncAudioInfo audio = {
        .sampleRate = settings.rate, .deinterleave = 1, .channels = settings.channels};
    AacEncStreamInfo info = {.bitRate = settings.bit_rate};
    AacEncInitParams params = {.audioInfo = &audio,
                               .streamInfo = &info,
                               .callbacks = &memory_callbacks,
                               .outputFormat = settings.raw ? uint8_t{AACENC_FORMAT_RAW}
                                                            : uint8_t{AACENC_FORMAT_ADTS},
                               .pns = settings.pns ? 1 : 0,
                               .tns = settings.tns ? 1 : 0,
                               .mpeg2Id = settings.mpeg2 ? 1 : 0};
    const int32_t result = QVR_AAC_ENC(AACENC_OP_INIT, &stream.encoder, &params, nullptr);
    if (result != AACENC_OK) {
        throw failure(exit_code::component,
                      "the encoder cannot be opened (" + std::to_string(result) + ")");
    }
}

std::span<const uint8_t> aac_stream_encode(aac_stream &stream, std::span<const int16_t> frame)
{
    AacEncAudioInfo audio = {.pcm = frame.data(), .deinterleave = 1};
    AacEncStreamInfo info = {.output = stream.unit.data()};
    const int32_t result = QVR_AAC_ENC(AACENC_OP_ENCODE, &stream.encoder, &audio, &info);
    if (result != AACENC_OK) {
        throw failure(exit_code::component,
                      "the encoder cannot encode a frame (" + std::to_string(result) + ")");
    }
    return std::span(stream.unit).first(static_cast<size_t>(info.outputBytes));
}

struct header_bits {
    std::vector<uint8_t> bytes;
    unsigned used_bits = 0;
};

static void put(header_bits &out, unsigned width, uint32_t value)
{
    for (; width > 0; width--, out.used_bits++) {
        if (out.used_bits % 8 == 0) {
            out.bytes.push_back(0);
        }
        const uint32_t bit = value >> (width - 1) & 1;
        out.bytes.back() = static_cast<uint8_t>(out.bytes.back() | bit << (7 - out.used_bits % 8));
    }
}

std::vector<uint8_t> adif_header(const aac_settings &settings)
{
    const uint32_t is_pair = settings.channels == 2 ? 1 : 0;
    const uint32_t rate_index = static_cast<uint32_t>(aac_rate_index(settings.rate));
    header_bits out;
    // clang-format off
    put(out, 32, 0x41444946);                                 // adif_id "ADIF"
    put(out, 1, 0);                                           // copyright_id_present
    put(out, 1, 0);                                           // original_copy
    put(out, 1, 0);                                           // home
    put(out, 1, 1);                                           // bitstream_type: variable rate
    put(out, 23, static_cast<uint32_t>(settings.bit_rate));   // bitrate
    put(out, 4, 0);                                           // num_program_config_elements - 1
    // program_config_element()
    put(out, 4, 0);                                           // element_instance_tag
    put(out, 2, 1);                                           // object_type: AAC LC
    put(out, 4, rate_index);                                  // sampling_frequency_index
    put(out, 4, 1);                                           // num_front_channel_elements
    put(out, 4, 0);                                           // num_side_channel_elements
    put(out, 4, 0);                                           // num_back_channel_elements
    put(out, 2, 0);                                           // num_lfe_channel_elements
    put(out, 3, 0);                                           // num_assoc_data_elements
    put(out, 4, 0);                                           // num_valid_cc_elements
    put(out, 1, 0);                                           // mono_mixdown_present
    put(out, 1, 0);                                           // stereo_mixdown_present
    put(out, 1, 0);                                           // matrix_mixdown_idx_present
    put(out, 1, is_pair);                                     // front_element_is_cpe[0]
    put(out, 4, 0);                                           // front_element_tag_select[0]
    put(out, (8 - out.used_bits % 8) % 8, 0);                 // byte_alignment()
    put(out, 8, 0);                                           // comment_field_bytes
    // clang-format on
    return out.bytes;
}

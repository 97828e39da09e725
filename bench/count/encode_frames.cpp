// The encoder alone, for counting its instructions. Encodes the streams of a file one after another
// and keeps nothing of them.
//
// usage: encode_frames FILE
//
// A stream is a head of six 32-bit numbers and then its frames of interleaved 16-bit PCM, all in
// the byte order of the machine.
#include "aacenc/aac_enc.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct stream_head {
    int32_t sample_rate;
    int32_t channels;
    int32_t bit_rate;
    int32_t pns;
    int32_t tns;
    int32_t frames;
};

static bool encode_frame(void **handle, const int16_t *pcm)
{
    static uint8_t output[AACENC_OUTPUT_BYTES];
    AacEncAudioInfo audio = {.pcm = pcm, .deinterleave = 1};
    AacEncStreamInfo stream = {.output = output};
    return QVR_AAC_ENC(AACENC_OP_ENCODE, handle, &audio, &stream) == AACENC_OK;
}

static bool encode_stream(const stream_head &head, std::FILE *file)
{
    static const AacEncCallbacks callbacks = {std::malloc, std::free,    std::memcpy,
                                              std::memset, std::realloc, std::memmove};
    AacEncAudioInfo audio = {
        .sampleRate = head.sample_rate, .deinterleave = 1, .channels = head.channels};
    AacEncStreamInfo stream = {.bitRate = head.bit_rate};
    AacEncInitParams params = {.audioInfo = &audio,
                               .streamInfo = &stream,
                               .callbacks = &callbacks,
                               .pns = head.pns,
                               .tns = head.tns};
    void *handle = nullptr;
    if (QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr) != AACENC_OK) {
        return false;
    }
    int16_t pcm[2 * AACENC_FRAME_SAMPLES];
    const size_t frame_samples = AACENC_FRAME_SAMPLES * static_cast<size_t>(head.channels);
    bool good = true;
    for (int32_t frame = 0; frame < head.frames && good; frame++) {
        good = std::fread(pcm, sizeof(int16_t), frame_samples, file) == frame_samples &&
               encode_frame(&handle, pcm);
    }
    return QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr) == AACENC_OK && good;
}

static bool encode_streams(std::FILE *file)
{
    stream_head head;
    while (std::fread(&head, sizeof(head), 1, file) == 1) {
        if (!encode_stream(head, file)) {
            return false;
        }
    }
    return true;
}

int main(int argc, char **argv)
{
    std::FILE *file = argc == 2 ? std::fopen(argv[1], "rb") : nullptr;
    if (file == nullptr) {
        std::fprintf(stderr, "usage: encode_frames FILE\n");
        return 1;
    }
    const bool good = encode_streams(file);
    std::fclose(file);
    if (!good) {
        std::fprintf(stderr, "encode_frames: a stream cannot be encoded\n");
    }
    return good ? 0 : 1;
}

// encode_wav INPUT.wav OUTPUT.aac BITRATE: encodes the whole frames of a 16-bit PCM file to an ADTS
// stream.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "aacenc/aac_enc.h"

namespace {

struct Wav {
    int32_t channels = 0;
    int32_t sample_rate = 0;
    std::vector<int16_t> samples;
};

template <typename T>
T read_le(const std::vector<char> &bytes, size_t at)
{
    T value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof(value));
    return value;
}

bool read_wav(const char *path, Wav *wav)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    for (size_t at = 12; at + 8 <= bytes.size();) {
        const size_t size = read_le<uint32_t>(bytes, at + 4);
        const size_t body = at + 8;
        if (size > bytes.size() - body)
            return false;
        if (std::memcmp(bytes.data() + at, "fmt ", 4) == 0 && size >= 16) {
            if (read_le<uint16_t>(bytes, body + 14) != 16)
                return false;
            wav->channels = read_le<uint16_t>(bytes, body + 2);
            wav->sample_rate = read_le<int32_t>(bytes, body + 4);
        } else if (std::memcmp(bytes.data() + at, "data", 4) == 0) {
            wav->samples.resize(size / sizeof(int16_t));
            std::memcpy(wav->samples.data(), bytes.data() + body,
                        wav->samples.size() * sizeof(int16_t));
            return wav->channels == 1 || wav->channels == 2;
        }
        at = body + size + (size & 1);
    }
    return false;
}

// Appends the access units of the whole frames of the input.
bool encode(const Wav &wav, void *handle, std::vector<uint8_t> *stream)
{
    const size_t frame = AACENC_FRAME_SAMPLES * static_cast<size_t>(wav.channels);
    uint8_t output[AACENC_OUTPUT_BYTES];
    AacEncAudioInfo audio = {.deinterleave = 1};
    AacEncStreamInfo info = {.output = output};
    for (size_t at = 0; at + frame <= wav.samples.size(); at += frame) {
        audio.pcm = wav.samples.data() + at;
        if (QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &info) != AACENC_OK)
            return false;
        stream->insert(stream->end(), output, output + info.outputBytes);
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Wav wav;
    if (argc != 4 || !read_wav(argv[1], &wav)) {
        std::fprintf(stderr, "usage: encode_wav INPUT.wav OUTPUT.aac BITRATE\n");
        return 1;
    }
    const AacEncCallbacks callbacks = {std::malloc, std::free,    std::memcpy,
                                       std::memset, std::realloc, std::memmove};
    AacEncAudioInfo audio = {
        .sampleRate = wav.sample_rate, .deinterleave = 1, .channels = wav.channels};
    AacEncStreamInfo info = {.bitRate = std::atoi(argv[3])};
    AacEncInitParams params = {.audioInfo = &audio,
                               .streamInfo = &info,
                               .callbacks = &callbacks,
                               .outputFormat = AACENC_FORMAT_ADTS};
    void *handle = nullptr;
    const int32_t opened = QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr);
    if (opened != AACENC_OK) {
        std::fprintf(stderr, "encode_wav: the encoder refuses the input (%d)\n", opened);
        return 1;
    }
    std::vector<uint8_t> stream;
    const bool encoded = encode(wav, handle, &stream);
    const int32_t closed = QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr);
    std::ofstream out(argv[2], std::ios::binary);
    out.write(reinterpret_cast<const char *>(stream.data()),
              static_cast<std::streamsize>(stream.size()));
    return encoded && closed == AACENC_OK && out.flush() ? 0 : 1;
}

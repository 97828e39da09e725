#include "tests/aacenc/encoder_harness.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <random>

using std::numbers::pi;

MemoryCounts memory_counts;

static void *counting_allocate(size_t size)
{
    if (++memory_counts.allocations == memory_counts.fail_at) {
        return nullptr;
    }
    memory_counts.open++;
    void *memory = std::malloc(size);
    std::memset(memory, 0xA5, size); // nothing may rely on cleared memory
    return memory;
}

static void counting_release(void *pointer)
{
    memory_counts.open--;
    std::free(pointer);
}

const AacEncCallbacks counting_callbacks = {
    .allocate = counting_allocate, .release = counting_release, .fill = std::memset};

Encoder::Encoder(const EncoderOptions &options)
{
    audio.sampleRate = options.sample_rate;
    audio.channels = options.channels;
    audio.deinterleave = options.deinterleave;
    stream.bitRate = options.bit_rate;
    params = {.audioInfo = &audio,
              .streamInfo = &stream,
              .callbacks = &counting_callbacks,
              .outputFormat = options.format,
              .pns = options.pns,
              .tns = options.tns,
              .mpeg2Id = options.mpeg2_id};
    opened = QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr);
}

Encoder::~Encoder()
{
    if (handle != nullptr) {
        EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr), AACENC_OK);
    }
}

std::vector<uint8_t> Encoder::encode(const int16_t *pcm, const int16_t *second)
{
    constexpr uint8_t kGuard = 0x5C;
    std::vector<uint8_t> output(AACENC_OUTPUT_BYTES + 16, kGuard);
    audio.pcm = pcm;
    audio.pcmSecond = second;
    stream.output = output.data();
    result = QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream);
    EXPECT_TRUE(std::all_of(output.begin() + AACENC_OUTPUT_BYTES, output.end(),
                            [](uint8_t byte) { return byte == kGuard; }));
    output.resize(result == AACENC_OK ? static_cast<size_t>(stream.outputBytes) : 0);
    return output;
}

Signal tone(double cycles_per_sample, double amplitude)
{
    return [=](int channel, int n) {
        return amplitude * std::sin(2 * pi * cycles_per_sample * n + channel);
    };
}

Signal square_wave(int half_period)
{
    return [=](int, int n) { return n / half_period % 2 == 0 ? 1.0 : -1.0; };
}

Signal impulses(int period)
{
    return [=](int channel, int n) { return (n + 100 * channel) % period == 0 ? 1.0 : 0.0; };
}

Signal noise(uint32_t seed, double amplitude)
{
    return [=, random = std::mt19937(seed)](int, int) mutable {
        return amplitude * (static_cast<double>(random()) / 2147483648.0 - 1);
    };
}

std::vector<int16_t> render(const Signal &signal, int channels, int frames)
{
    std::vector<int16_t> samples;
    for (int n = 0; n < frames * AACENC_FRAME_SAMPLES; n++) {
        for (int ch = 0; ch < channels; ch++) {
            samples.push_back(static_cast<int16_t>(
                std::clamp(std::lround(32768 * signal(ch, n)), -32768L, 32767L)));
        }
    }
    return samples;
}

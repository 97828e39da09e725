// An open encoder and the signals to feed it.
#ifndef TESTS_AACENC_ENCODER_HARNESS_H
#define TESTS_AACENC_ENCODER_HARNESS_H

#include "aacenc/aac_enc.h"
#include "aacenc/encoder_state.h"

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

// Memory functions that count, and fail at a chosen allocation.
struct MemoryCounts {
    int allocations = 0;
    int open = 0; // not yet released
    int fail_at = 0;
};
extern MemoryCounts memory_counts;
extern const AacEncCallbacks counting_callbacks;

struct EncoderOptions {
    int32_t sample_rate = 48000;
    int32_t channels = 2;
    int32_t bit_rate = 128000;
    int32_t deinterleave = 1;
    uint8_t format = AACENC_FORMAT_RAW;
    int32_t pns = 0;
    int32_t tns = 0;
    int32_t mpeg2_id = 0;
};

struct Encoder {
    explicit Encoder(const EncoderOptions &options);
    ~Encoder();
    Encoder(const Encoder &) = delete;
    Encoder &operator=(const Encoder &) = delete;

    // Encodes one frame into a buffer with guard bytes; empty when that fails.
    std::vector<uint8_t> encode(const int16_t *pcm, const int16_t *second = nullptr);

    AacEncState *state()
    {
        return static_cast<AacEncHandle *>(handle)->state;
    }
    EncTfState *tf()
    {
        return state()->tfState;
    }

    AacEncAudioInfo audio = {};
    AacEncStreamInfo stream = {};
    AacEncInitParams params = {};
    void *handle = nullptr;
    int32_t opened = 0;
    int32_t result = 0; // of the last frame
};

// One channel of an encoder at 48000 Hz that has coded a frame of silence: its records are set up.
struct SilentChannel : testing::Test {
    Encoder encoder{EncoderOptions{.channels = 1, .bit_rate = 64000}};
    EncTfState *tf = encoder.tf();
    AacEncCoderInfo *coder = tf->coderInfo[0];

    void SetUp() override
    {
        ASSERT_FALSE(encoder.encode(std::vector<int16_t>(AACENC_FRAME_SAMPLES).data()).empty());
    }
};

// A sample of a channel at a position, from -1 to 1.
using Signal = std::function<double(int channel, int position)>;

Signal tone(double cycles_per_sample, double amplitude);
Signal square_wave(int half_period);
Signal impulses(int period);
Signal noise(uint32_t seed, double amplitude);

// `frames` frames of interleaved samples, rounded and limited to 16 bits.
std::vector<int16_t> render(const Signal &signal, int channels, int frames);

#endif // TESTS_AACENC_ENCODER_HARNESS_H

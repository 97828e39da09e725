#include "aacenc/encoder_setup.h"
#include "aacenc/frame_driver.h"
#include "tests/aacenc/encoder_harness.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

static int32_t open_result(const EncoderOptions &options)
{
    memory_counts = {};
    const Encoder encoder(options);
    EXPECT_EQ(encoder.opened == AACENC_OK, encoder.handle != nullptr);
    EXPECT_EQ(encoder.opened == AACENC_OK, memory_counts.open != 0);
    return encoder.opened;
}

TEST(Interface, RefusesWhatItCannotEncode)
{
    for (const int32_t bit_rate : {15000, 64500, 0, -1000, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(open_result({.bit_rate = bit_rate}), AACENC_ERR_CONFIG) << bit_rate;
    }
    for (const int32_t channels : {0, 3, -1}) {
        EXPECT_EQ(open_result({.channels = channels}), AACENC_ERR_CONFIG) << channels;
    }
    for (const int32_t rate : {96000, 64000, 7350, 0, -48000, 48001}) {
        EXPECT_EQ(open_result({.sample_rate = rate}), AACENC_ERR_SAMPLE_RATE) << rate;
    }
    EXPECT_EQ(open_result({.bit_rate = 16000}), AACENC_OK);
    EXPECT_EQ(open_result({.bit_rate = 2147483000}), AACENC_OK);
}

TEST(Interface, AFailingAllocationLeavesNothingBehind)
{
    ASSERT_EQ(open_result({}), AACENC_OK);
    ASSERT_EQ(memory_counts.allocations, 4); // handle, work block, two channel buffers
    EXPECT_EQ(memory_counts.open, 0);
    for (int n = 1; n <= 4; n++) {
        memory_counts = {.fail_at = n};
        const Encoder encoder(EncoderOptions{});
        EXPECT_EQ(encoder.opened, AACENC_ERR_MEMORY) << n;
        EXPECT_EQ(encoder.handle, nullptr);
        EXPECT_EQ(memory_counts.open, 0) << n;
        EXPECT_EQ(memory_counts.allocations, n); // no other one was tried
    }
    memory_counts = {};
}

TEST(Interface, MissingPointersAreErrors)
{
    void *handle = nullptr;
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, nullptr, nullptr), AACENC_ERR_NO_HANDLE);
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr), AACENC_ERR_NO_HANDLE);
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_CLOSE, nullptr, nullptr, nullptr), AACENC_ERR_NO_HANDLE);
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_INIT, &handle, nullptr, nullptr), AACENC_ERR_INIT);
    EXPECT_EQ(QVR_AAC_ENC(1, &handle, nullptr, nullptr), AACENC_ERR_OPERATION);
    EXPECT_EQ(EncTfFrame(nullptr, nullptr, nullptr), -1);
    AacEncInitParams no_records = {.callbacks = &counting_callbacks};
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_INIT, &handle, &no_records, nullptr), AACENC_ERR_INIT);
}

TEST(Interface, MissingInputOfAFrameIsAnError)
{
    const std::vector<int16_t> pcm = render(tone(0.01, 0.5), 2, 1);
    for (const int32_t deinterleave : {0, 1}) {
        Encoder encoder(EncoderOptions{.deinterleave = deinterleave});
        encoder.stream.outputBytes = 77;
        EXPECT_TRUE(encoder.encode(nullptr).empty()); // no PCM so far
        EXPECT_EQ(encoder.result, AACENC_ERR_FRAME);
        EXPECT_EQ(encoder.stream.outputBytes, 77);
        EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_ENCODE, &encoder.handle, nullptr, nullptr),
                  AACENC_ERR_FRAME);
        EXPECT_EQ(encoder.tf()->frameCounter, 0U);
        EXPECT_FALSE(encoder.encode(pcm.data(), pcm.data() + 1024).empty());
        EXPECT_FALSE(encoder.encode(nullptr).empty()); // the frame before once more
        encoder.audio.deinterleave = 1;                // with or without the buffers for it
        EXPECT_EQ(encoder.encode(pcm.data()).empty(), deinterleave == 0);
    }
}

TEST(Setup, DerivesBandwidthAndMeanBits)
{
    Encoder stereo(EncoderOptions{});
    EXPECT_EQ(stereo.state()->meanBits, 2731);
    EXPECT_EQ(stereo.tf()->bwLines, 653);
    EXPECT_EQ(stereo.state()->bitsAvailable, 8184);
    EXPECT_EQ(stereo.params.outputBufferBytes, 2048);
    EXPECT_EQ(stereo.tf()->heapUsed, kWorkBlockNeed);
    // 64000 bit/s at 8000 Hz becomes 47000
    Encoder slow(EncoderOptions{.sample_rate = 8000, .channels = 1, .bit_rate = 64000});
    EXPECT_EQ(slow.stream.sampleRate, 8000);
    EXPECT_EQ(slow.stream.channels, 1);
    EXPECT_EQ(slow.stream.samplesPerChannel, 1024);
    EXPECT_EQ(slow.state()->meanBits, 6016);
    EXPECT_EQ(slow.tf()->bwLines, 3628 * 1024 / 4000);

    const int32_t cases[][3] = {{29999, 22050, 2802},  {30000, 22050, 8000},  {45999, 44100, 5604},
                                {61999, 48000, 12490}, {62000, 48000, 15306}, {75000, 48000, 16000},
                                {64000, 96000, 0}};
    for (const auto &[bit_rate, sample_rate, bandwidth] : cases) {
        EXPECT_EQ(AACENC_SetBandWidth(bit_rate, sample_rate), bandwidth);
    }
}

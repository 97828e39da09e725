#include "aacenc/huffman_tables.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/rate_loop.h"
#include "tests/aacenc/encoder_harness.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

struct RateLoop : SilentChannel {
    int32_t *spectrum = tf->channelBuffer[0];

    // Codes lines `from` to `to` of one value.
    // returns: the gain
    int32_t code(int32_t start_gain, int32_t budget, int from, int to, int32_t value,
                 int32_t room = kMaxChannelBits)
    {
        std::fill_n(spectrum, kFrameLines, 0);
        std::fill(spectrum + from, spectrum + to, value);
        tf->lastGain = start_gain;
        tf->bitsLeft = room;
        EXPECT_EQ(tf_encode_spectrum_aac(&tf->channelBuffer[0], kOnlyLongSequence, budget,
                                         tf->bitstream, coder, tf->chInfo[0], tf),
                  0);
        EXPECT_LE(coder->codewordCount, kMaxCodewords);
        EXPECT_EQ(coder->globalGain, std::min(tf->lastGain, 99) + 100);
        EXPECT_EQ(coder->scalefactor[0], coder->globalGain);
        EXPECT_GE(tf->bitsLeft, 0);
        return tf->lastGain;
    }
};

TEST_F(RateLoop, GainFollowsTheSteps)
{
    EXPECT_EQ(code(60, 2000, 0, 0, 0), 51); // 60, 56, 54, 53, 51
    EXPECT_EQ(coder->codewordCount, 49);
    EXPECT_EQ(std::count(spectrum, spectrum + 49, 0), 49);
    EXPECT_EQ(code(51, 2000, 0, 0, 0), 42);
    EXPECT_EQ(code(33, 2000, 0, 0, 0), 31);         // starts again at 40
    EXPECT_EQ(code(40, 100, 0, 1024, 2000000), 72); // 40, 48, 56, 64, 72
    EXPECT_EQ(code(72, -1000, 0, 1024, 2000000), 104);
    EXPECT_EQ(code(198, -1000, 0, 1024, 2000000), 198); // the next one would exceed 200
    EXPECT_EQ(code(201, -1000, 0, 1024, 2000000), 72);
    // A low gain starts from the spectrum: 2^26 gives 6 / 3 * 16, below 40; 2^31 gives 11 / 3 * 16.
    EXPECT_EQ(code(39, -1000, 0, 4, 1 << 26), 72);
    EXPECT_EQ(code(39, -1000, 0, 4, INT32_MIN), 80);
}

TEST_F(RateLoop, AChannelNeverPassesTheAccessUnit)
{
    for (const int32_t room : {6144, 3000, 700, 40}) {
        EXPECT_GE(code(40, 1 << 20, 0, 1024, INT32_MIN, room), 99); // far above the transform
        EXPECT_EQ(coder->codebook[48], kZeroBook);                  // the top bands were dropped
        EXPECT_EQ(coder->codebook[0] != kZeroBook, room > 40);
    }
    // Lines that a higher gain brings within the limit keep all their bands.
    EXPECT_LT(code(40, 1 << 20, 0, 1024, 1000000, 3000), 99);
    EXPECT_NE(coder->codebook[48], kZeroBook);
    // Escapes everywhere, five entries a pair: they would be 2560 if the gain did not rise.
    EXPECT_GT(code(40, 1 << 20, 0, 1024, 1000000, 2 * kMaxChannelBits), 40);
    EXPECT_GT(coder->codewordCount, kMaxCodewords / 2);
}

// The first channel of a pair leaves the second one the bits that it needs without any line.
TEST(RateLoopOfAPair, TheSecondChannelHasItsRoom)
{
    Encoder encoder(EncoderOptions{});
    ASSERT_FALSE(encoder.encode(std::vector<int16_t>(2 * AACENC_FRAME_SAMPLES).data()).empty());
    EncTfState *tf = encoder.tf();
    *tf->tns[1] = {.active = 1, .nFilt = 1, .coefRes = 4, .filter = {.order = 12}};
    const auto code_loud = [&](size_t channel) {
        std::fill_n(tf->channelBuffer[channel], kFrameLines, INT32_MIN);
        EXPECT_EQ(tf_encode_spectrum_aac(&tf->channelBuffer[channel], kOnlyLongSequence, 1 << 20,
                                         tf->bitstream, tf->coderInfo[channel], tf->chInfo[channel],
                                         tf),
                  0);
    };
    tf->bitsLeft = 2 * kMaxChannelBits;
    code_loud(0);
    const int32_t first_bits = 2 * kMaxChannelBits - tf->bitsLeft;
    int32_t fewest_left = first_bits;
    for (int32_t room = first_bits; room < first_bits + 200; room++) {
        tf->bitsLeft = room;
        code_loud(0);
        code_loud(1);
        fewest_left = std::min(fewest_left, tf->bitsLeft);
    }
    EXPECT_EQ(fewest_left, 0);
}

TEST_F(RateLoop, NoiseStepsStayWithinTheirCodebook)
{
    std::fill_n(coder->noiseFlag, 3, 1);
    coder->noiseEnergy[0] = 90;
    coder->noiseEnergy[1] = 0;
    coder->noiseEnergy[2] = 95;
    (void)code(60, 2000, 0, 1024, 200000);
    EXPECT_EQ(coder->codebook[1], kNoiseBook);
    EXPECT_EQ(coder->noiseEnergy[1], 30);
    EXPECT_EQ(coder->noiseEnergy[2], 90);
}

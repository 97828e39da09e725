#include "aacenc/element_syntax.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"
#include "aacenc/rate_loop.h"
#include "tests/aacenc/encoder_harness.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
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

// Chooses the codebooks of a gain. All scalefactors are 0.
// returns: the bits of a trial
static int32_t plain_trial(AacEncCoderInfo *coder, const int32_t *spectrum, int32_t gain,
                           const EncTfState *tf)
{
    static constexpr int32_t kLargest[6] = {0, 1, 2, 4, 7, 12}; // of the codebooks below 2 * i
    int32_t bits = 102 + WriteTNSData(coder, tf->bitstream, 0);
    coder->globalGain = gain;
    for (int32_t band = 0; band < tf->sfbTotal; band++) {
        std::vector<int32_t> values;
        int32_t max = 0;
        for (int32_t k = coder->swbOffset[band]; k < coder->swbOffset[band + 1]; k++) {
            const auto line = static_cast<uint32_t>(std::abs(spectrum[k]));
            const int32_t magnitude =
                quantise_power(power_three_quarters(line), step_of_gain(gain).factor_q32);
            values.push_back(spectrum[k] < 0 ? -magnitude : magnitude);
            max = std::max(max, magnitude);
        }
        const auto pair = std::lower_bound(kLargest, kLargest + 6, max) - kLargest;
        const int32_t odd = max == 0 ? 0 : static_cast<int32_t>(2 * pair - 1);
        const int32_t even = odd == 0 || odd == kEscapeBook ? odd : odd + 1;
        const int32_t count = static_cast<int32_t>(values.size());
        const int32_t odd_bits = output_bits_check(odd, values.data(), count);
        const int32_t even_bits = output_bits_check(even, values.data(), count);
        coder->codebook[band] = static_cast<uint8_t>(even_bits < odd_bits ? even : odd);
        bits += std::min(odd_bits, even_bits);
    }
    return bits + sort_book_numbers(coder, tf->bitstream, 0, tf) +
           write_scalefactor_bitstream(tf->bitstream, 0, coder, tf);
}

// The search without a shortcut.
static int32_t plain_search(AacEncCoderInfo *coder, const int32_t *spectrum, int32_t budget,
                            int32_t gain, const EncTfState *tf)
{
    std::fill_n(coder->scalefactor, kMaxBands, 0);
    int32_t step = 8;
    for (int trial = 1;; trial++) {
        const int32_t left = budget - plain_trial(coder, spectrum, gain, tf);
        if (left >= 0 && left >= budget >> 2) {
            step = step / 2 != 0 ? step / 2 : 2;
        }
        const int32_t next = left < 0 ? gain + step : gain - step;
        if ((left >= 0 && left < budget >> 2) || next > 200 || trial == 5) {
            return gain;
        }
        gain = next;
    }
}

// Steps up and back to a gain, counts that stop early, and all ends of the search.
TEST_F(RateLoop, SearchEqualsThePlainOne)
{
    std::mt19937 random(12);
    for (int i = 0; i < 600; i++) {
        SCOPED_TRACE(i);
        const int fall = static_cast<int>(random() % 200) + 64; // lines for half the amplitude
        const int loudest = 11 + static_cast<int>(random() % 12);
        for (int k = 0; k < kFrameLines; k++) {
            spectrum[k] = static_cast<int32_t>(random()) >> std::min(loudest + k / fall, 31);
        }
        const int32_t budget = static_cast<int32_t>(random() % 4000) - 100;
        const int32_t start_gain = 40 + static_cast<int32_t>(random() % (i % 10 == 0 ? 161 : 40));
        AacEncCoderInfo plain = *coder;
        tf->lastGain = start_gain;
        tf->bitsLeft = 1 << 20;
        const int32_t gain = plain_search(&plain, spectrum, budget, start_gain, tf);
        ASSERT_EQ(tf_encode_spectrum_aac(&tf->channelBuffer[0], kOnlyLongSequence, budget,
                                         tf->bitstream, coder, tf->chInfo[0], tf),
                  0);
        ASSERT_EQ(tf->lastGain, gain);
        ASSERT_TRUE(std::equal(coder->codebook, coder->codebook + tf->sfbTotal, plain.codebook));
    }
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

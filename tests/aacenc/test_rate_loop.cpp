#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/channel_elements.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"
#include "aacenc/rate_loop.h"
#include "tests/aacenc/encoder_harness.h"

// One channel of an encoder at 48000 Hz, ready for the rate loop.
struct RateLoop : testing::Test {
    Encoder encoder{EncoderOptions{.channels = 1, .bit_rate = 64000}};
    EncTfState *tf = encoder.tf();
    AacEncCoderInfo *coder = tf->coderInfo[0];
    int32_t limit = kMaxChannelBits;

    void SetUp() override
    {
        const std::vector<int16_t> pcm = render(silence(), 1, 1);
        ASSERT_FALSE(encoder.encode(pcm.data()).empty()); // fills the band offsets
        tf->lastGain = 60;
    }

    int32_t *spectrum()
    {
        return tf->channelBuffer[0];
    }

    void set_lines(int from, int to, int32_t value)
    {
        std::fill(spectrum(), spectrum() + kFrameLines, 0);
        std::fill(spectrum() + from, spectrum() + to, value);
    }

    // returns: the gain
    int32_t code(int32_t budget)
    {
        tf->bitsLeft = limit;
        EXPECT_EQ(tf_encode_spectrum_aac(&tf->channelBuffer[0], kOnlyLongSequence, budget,
                                         tf->bitstream, coder, tf->chInfo[0], tf),
                  0);
        EXPECT_LE(coder->codewordCount, kMaxCodewords);
        EXPECT_EQ(coder->globalGain, std::min(tf->lastGain, 99) + 100);
        EXPECT_EQ(coder->scalefactor[0], coder->globalGain);
        return tf->lastGain;
    }
};

TEST(NoiselessCoding, LogarithmIsRoundedDown)
{
    EXPECT_EQ(AACENC_LOG2(0), 0);
    for (int32_t i = 0; i < 32; i++) {
        EXPECT_EQ(AACENC_LOG2(1U << i), i);
        EXPECT_EQ(AACENC_LOG2((2U << i) - 1), i); // 2^32 - 1 for i = 31
    }
}

TEST(NoiselessCoding, LargestValueDecidesTheCodebooks)
{
    const uint8_t expected[] = {0, 1, 3, 5, 5, 7, 7, 7, 9, 9, 9, 9, 9, 11, 11, 11, 11, 11};
    for (int32_t max = 0; max < 18; max++) {
        const int32_t values[4] = {0, -max, 1, 0};
        const BookChoice choice = choose_codebook(values, 4, max);
        const uint8_t low = expected[max];
        const bool single = low == kZeroBook || low == kEscapeBook;
        EXPECT_TRUE(choice.book == low || (!single && choice.book == low + 1)) << max;
        EXPECT_EQ(choice.bits, output_bits_check(choice.book, values, 4)) << max;
        if (!single) {
            const int32_t low_bits = output_bits_check(low, values, 4);
            const int32_t high_bits = output_bits_check(low + 1, values, 4);
            EXPECT_EQ(choice.book, high_bits < low_bits ? low + 1 : low) << max;
        }
    }
    EXPECT_EQ(output_bits_check(0, nullptr, 4), 0);
    EXPECT_EQ(output_bits_check(13, nullptr, 4), 0);
}

TEST(NoiselessCoding, TieTakesTheLowerBook)
{
    // Both books need seven bits for the first quadruple of these lines.
    for (int32_t code = 0; code < 81; code++) {
        const int32_t values[4] = {code / 27 - 1, code / 9 % 3 - 1, code / 3 % 3 - 1, code % 3 - 1};
        if (huff1[code] >> 24 == huff2[code] >> 24) {
            EXPECT_EQ(choose_codebook(values, 4, 1).book, 1);
            return;
        }
    }
    FAIL() << "no tie";
}

static std::vector<uint32_t> pack(int32_t book, const std::vector<int32_t> &values)
{
    std::vector<uint32_t> list(64);
    const int32_t count = static_cast<int32_t>(values.size());
    const uint32_t *end = pack_codewords(book, values.data(), count, list.data());
    list.resize(static_cast<size_t>(end - list.data()));
    EXPECT_EQ(count_codewords(book, values.data(), count), static_cast<int32_t>(list.size()));
    uint32_t bits = 0;
    for (const uint32_t entry : list)
        bits += entry >> 24;
    EXPECT_EQ(output_bits_check(book, values.data(), count), static_cast<int32_t>(bits));
    return list;
}

TEST(NoiselessCoding, CodewordsSignsAndEscapesFollowEachOther)
{
    using Entries = std::vector<uint32_t>;
    constexpr uint32_t kPlus = 0x01000000;
    constexpr uint32_t kMinus = 0x01000001;
    EXPECT_EQ(pack(1, {-1, 0, 1, 1}), (Entries{huff1[-27 + 3 + 1 + 40]}));
    EXPECT_EQ(pack(4, {-1, 0, 2, -2}), (Entries{huff4[27 + 6 + 2], kMinus, kPlus, kMinus}));
    EXPECT_EQ(pack(6, {-4, 4, 0, -1}), (Entries{huff6[-36 + 4 + 40], huff6[-1 + 40]}));
    EXPECT_EQ(pack(7, {7, -1, 0, 0}), (Entries{huff7[57], kPlus, kMinus, huff7[0]}));
    EXPECT_EQ(pack(10, {0, -12, 12, 0}), (Entries{huff10[12], kMinus, huff10[156], kPlus}));
    EXPECT_EQ(pack(11, {16, -31, -32, 15}),
              (Entries{huff11[16 * 17 + 16], kPlus, kMinus, 5U << 24, 5U << 24 | 15,
                       huff11[16 * 17 + 15], kMinus, kPlus, 7U << 24 | 64}));
    EXPECT_EQ(pack(11, {8191, 0, 0, 0}),
              (Entries{huff11[16 * 17], kPlus, 21U << 24 | 0x1FEFFF, huff11[0]}));
    EXPECT_EQ(pack(0, {0, 0, 0, 0}), (Entries{0}));
    EXPECT_EQ(pack(13, {3, 0, 0, 0}), (Entries{0}));
}

TEST(Quantiser, RoundsUpFromThreeQuarters)
{
    // Gain 48 divides the power by 2^9.
    const int32_t powers[5] = {383, 384, 895, 896, 896};
    const int32_t spectrum[5] = {1, 1, 1, 1, -1};
    int32_t quantised[5];
    quantise_lines(spectrum, powers, 5, quantiser_factor(48), quantised);
    EXPECT_EQ(std::vector<int32_t>(quantised, quantised + 5),
              (std::vector<int32_t>{0, 1, 1, 2, -2}));
    EXPECT_EQ(quantiser_factor(-5), 1 << 29);
    EXPECT_EQ(quantiser_factor(200), quantiser_factor(99));
}

TEST_F(RateLoop, SilenceLowersTheGainByTheSteps)
{
    set_lines(0, 0, 0);
    EXPECT_EQ(code(2000), 51);
    EXPECT_EQ(coder->codewordCount, 49);
    EXPECT_TRUE(std::all_of(spectrum(), spectrum() + 49, [](int32_t entry) { return entry == 0; }));
    EXPECT_EQ(code(2000), 42); // 51, 47, 45, 44, 42
    EXPECT_EQ(code(2000), 33);
    EXPECT_EQ(code(2000), 31); // starts again at 40
}

TEST_F(RateLoop, OverTheBudgetTheGainRisesByEight)
{
    tf->lastGain = 40;
    set_lines(0, 1024, 2000000);
    EXPECT_EQ(code(100), 72); // 40, 48, 56, 64, 72
    set_lines(0, 1024, 2000000);
    EXPECT_EQ(code(-1000), 104);
    tf->lastGain = 198; // the next gain would pass 200
    set_lines(0, 1024, 2000000);
    EXPECT_EQ(code(-1000), 198);
}

TEST_F(RateLoop, ATrialNearTheBudgetEndsTheSearch)
{
    set_lines(0, 1024, 20000);
    const int32_t probe_gain = code(1 << 20); // far below the budget: 60, 56, 54, 53, 51
    EXPECT_EQ(probe_gain, 51);
    const int32_t used = kMaxChannelBits - tf->bitsLeft;
    // The trial allows 102 bits beyond the lines and sections; the channel took 21 and one per
    // band.
    const int32_t total = used - 22 - 49 + 1 + 102 + 48 + static_cast<int32_t>(huff12[9] >> 24);
    for (const int32_t budget : {total, total + total / 3 - 2}) {
        tf->lastGain = 51;
        set_lines(0, 1024, 20000);
        EXPECT_EQ(code(budget), 51) << budget;
    }
    tf->lastGain = 51;
    set_lines(0, 1024, 20000);
    EXPECT_GT(code(total - 1), 51);
}

TEST_F(RateLoop, StartFollowsTheSpectrumWhenTheGainWasLow)
{
    // 2^26 to the power 3/4 is above 2^19: log2 of it over 2^13 is 6, which gives 32, below 40.
    tf->lastGain = 39;
    set_lines(0, 4, 1 << 26);
    EXPECT_EQ(code(-1000), 72);
    // 2^31: about 2^24, 11 / 3 * 16 = 48
    tf->lastGain = 39;
    set_lines(0, 4, INT32_MIN);
    EXPECT_EQ(code(-1000), 80);
}

TEST_F(RateLoop, MagnitudesStayWithinTheEscapeCode)
{
    tf->lastGain = 40;
    set_lines(10, 12, 1 << 26); // few bits: the search ends at a gain of 31
    const int32_t gain = code(1 << 20);
    EXPECT_GT(gain, 31);
    EXPECT_LE(std::abs(tf->work[0][10]), kMaxQuantised);
    EXPECT_GT(quantise_power(power_three_quarters(1 << 26), quantiser_factor(gain - 1)),
              kMaxQuantised);
}

TEST_F(RateLoop, AChannelNeverPassesTheAccessUnit)
{
    for (const int32_t room : {6144, 3000, 700, 40}) {
        tf->lastGain = 40;
        limit = room;
        for (int32_t k = 0; k < kFrameLines; k++)
            spectrum()[k] = k % 2 == 0 ? INT32_MIN : INT32_MAX; // far above the transform's range
        EXPECT_GE(code(1 << 20), 99);
        EXPECT_GE(tf->bitsLeft, 0);
        EXPECT_EQ(coder->codebook[48], kZeroBook); // the top bands went
        EXPECT_EQ(coder->codebook[0] != kZeroBook, room > 40);
    }
    // Lines that a higher gain brings within the limit keep all their bands.
    tf->lastGain = 40;
    limit = 3000;
    set_lines(0, 1024, 1000000);
    EXPECT_LT(code(1 << 20), 99);
    EXPECT_NE(coder->codebook[48], kZeroBook);
    EXPECT_GT(tf->bitsLeft, 0);
}

TEST_F(RateLoop, TheListOfCodewordsFitsItsBuffer)
{
    // Escapes everywhere, five entries a pair: 2560 of them if the gain did not rise.
    tf->lastGain = 40;
    limit = 2 * kMaxChannelBits;
    set_lines(0, 1024, 1000000);
    EXPECT_GT(code(1 << 20), 40);
    EXPECT_GT(coder->codewordCount, kMaxCodewords / 2);
}

TEST_F(RateLoop, NoiseStepsStayWithinTheirCodebook)
{
    set_lines(0, 1024, 200000);
    std::fill_n(coder->noiseFlag, 3, 1);
    coder->noiseEnergy[0] = 90;
    coder->noiseEnergy[1] = 0;
    coder->noiseEnergy[2] = 95;
    (void)code(2000);
    EXPECT_EQ(coder->codebook[1], kNoiseBook);
    EXPECT_EQ(coder->noiseEnergy[1], 30);
    EXPECT_EQ(coder->noiseEnergy[2], 90);
}

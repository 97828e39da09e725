#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/band_tables.h"
#include "aacenc/channel_elements.h"
#include "aacenc/tns.h"
#include "tests/aacenc/encoder_harness.h"

static constexpr double kPi = 3.14159265358979323846;

// Lines that a click in the frame gives: a damped wave along the frequency axis, with some noise.
static std::vector<int32_t> click_lines(double position, double noise_level)
{
    std::mt19937 random(9);
    std::vector<int32_t> lines(1024);
    for (size_t k = 0; k < 1024; k++)
        lines[k] = static_cast<int32_t>(
            1e6 * (std::cos(kPi * position * (static_cast<double>(k) + 0.5)) +
                   noise_level * (static_cast<double>(random() % 2001) / 1000 - 1)));
    return lines;
}

// The textbook recursion in double precision.
static std::vector<double> plain_reflection(const std::vector<int32_t> &lines)
{
    std::vector<double> r(13);
    for (size_t lag = 0; lag <= 12; lag++)
        for (size_t n = 0; n + lag < lines.size(); n++)
            r[lag] += 1.0 * lines[n + lag] * lines[n];
    std::vector<double> a = {1};
    std::vector<double> k(13);
    double error = r[0];
    for (size_t m = 1; m <= 12; m++) {
        double sum = 0;
        for (size_t j = 0; j < m; j++)
            sum += a[j] * r[m - j];
        k[m] = -sum / error;
        std::vector<double> next = a;
        next.push_back(0);
        for (size_t j = 1; j <= m; j++)
            next[j] += k[m] * a[m - j];
        a = next;
        error *= 1 - k[m] * k[m];
    }
    return k;
}

TEST(Tns, RecursionEqualsThePlainOne)
{
    for (const double position : {0.1, 0.37, 0.8}) {
        const std::vector<int32_t> lines = click_lines(position, 0.3);
        int32_t reflection[13];
        EXPECT_NE(LevinsonDurbin_fixed(1024, lines.data(), reflection), 0);
        const std::vector<double> expected = plain_reflection(lines);
        for (size_t m = 1; m <= 12; m++)
            EXPECT_NEAR(reflection[m] / 268435456.0, expected[m], 1e-5) << m;
    }
}

TEST(Tns, OnlyPredictableLinesAreWorthAFilter)
{
    int32_t reflection[13];
    const std::vector<int32_t> silent(1024, 0);
    EXPECT_EQ(LevinsonDurbin_fixed(1024, silent.data(), reflection), 0);
    EXPECT_TRUE(std::all_of(reflection + 1, reflection + 13, [](int32_t k) { return k == 0; }));
    // A wave of power 1/2 in noise of power 1/3 predicts by 1.4 at the most, in weaker noise more.
    EXPECT_EQ(LevinsonDurbin_fixed(1024, click_lines(0.3, 3).data(), reflection), 0);
    EXPECT_NE(LevinsonDurbin_fixed(1024, click_lines(0.3, 0.5).data(), reflection), 0);
}

TEST(Tns, RecursionStaysSoundOnAnyLines)
{
    std::vector<std::vector<int32_t>> extremes = {
        std::vector<int32_t>(1024, INT32_MIN), std::vector<int32_t>(1024, INT32_MAX),
        std::vector<int32_t>(1024, 1), std::vector<int32_t>(1024, 0)};
    extremes[3][500] = INT32_MIN;
    std::mt19937 random(10);
    for (int i = 0; i < 200; i++) {
        std::vector<int32_t> lines(1024);
        const auto mode = random() % 3;
        const int32_t period = static_cast<int32_t>(random() % 20) + 1;
        for (int32_t k = 0; k < 1024; k++) {
            const int32_t extreme = k / period % 2 == 0 ? INT32_MIN : INT32_MAX;
            const int32_t value = static_cast<int32_t>(static_cast<uint32_t>(random()));
            lines[static_cast<size_t>(k)] = mode == 0 ? extreme : mode == 1 ? value : value >> 28;
        }
        extremes.push_back(lines);
    }
    for (std::vector<int32_t> &lines : extremes) {
        int32_t reflection[13];
        (void)LevinsonDurbin_fixed(1024, lines.data(), reflection);
        for (int m = 1; m <= 12; m++)
            EXPECT_LE(std::abs(reflection[m]), 1 << 28);

        Encoder encoder(EncoderOptions{.channels = 1, .bit_rate = 64000});
        int32_t offsets[50] = {0, 10, 20};
        std::fill(offsets + 3, offsets + 50, 1024);
        std::vector<int32_t> work1(1024);
        std::vector<int32_t> work2(1024);
        AacEncTns *tns = encoder.tf()->tns[0];
        EXPECT_EQ(
            TnsEncode_fixedVer(49, 49, offsets, lines.data(), tns, 1, work1.data(), work2.data()),
            -2); // the filter starts behind the last line here
        std::fill(offsets + 17, offsets + 50, 1024);
        std::fill(offsets, offsets + 17, 0);
        EXPECT_EQ(
            TnsEncode_fixedVer(49, 49, offsets, lines.data(), tns, 1, work1.data(), work2.data()),
            0);
    }
}

TEST(Tns, QuantiserDecidesByTheThresholds)
{
    int32_t reflection[13] = {0,          0,         107374182, -107374182, 536870911,
                              -536870912, 268435456, 268435457, -300000000, 56118291,
                              56118292,   1,         -1};
    const int expected[13] = {0, 0, 1, 0, 7, -7, 2, 3, -2, 0, 1, 0, 0};
    int8_t indices[13] = {};
    QuantizeReflectionCoeffs_fixedVer(reflection, indices);
    for (int i = 1; i <= 12; i++)
        EXPECT_EQ(indices[i], expected[i]) << i;
    EXPECT_EQ(reflection[2], 111621739);
    EXPECT_EQ(reflection[1], 0);
    EXPECT_EQ(reflection[4], 533929876);
}

TEST(Tns, DirectFormThatLeavesItsFormatIsRefused)
{
    int32_t reflection[13];
    int32_t direct[13];
    std::fill_n(reflection, 13, 533929876);
    EXPECT_EQ(StepUp_fixedVer(2, reflection, direct), 0);
    EXPECT_EQ(direct[0], 1 << 29);
    EXPECT_NEAR(direct[1] / 536870912.0, 0.99452 * 1.99452, 1e-4);
    EXPECT_EQ(direct[2], reflection[2]);
    EXPECT_EQ(StepUp_fixedVer(12, reflection, direct), -1);
}

// A decoder's filter, from the coefficients that the stream carries, gives the lines back.
TEST(Tns, SynthesisRestoresTheLines)
{
    Encoder encoder(EncoderOptions{.channels = 1, .bit_rate = 64000});
    EncTfState *tf = encoder.tf();
    const std::vector<int16_t> pcm = render(silence(), 1, 1);
    ASSERT_FALSE(encoder.encode(pcm.data()).empty());
    const int32_t *offsets = tf->coderInfo[0]->swbOffset;
    std::vector<int32_t> lines = click_lines(0.21, 0.2);
    const std::vector<int32_t> original = lines;
    AacEncTns *tns = tf->tns[0];
    ASSERT_EQ(TnsEncode_fixedVer(49, 49, offsets, lines.data(), tns, 1, tf->work[0], tf->work[1]),
              0);
    ASSERT_EQ(tns->active, 1);
    EXPECT_EQ(tns->filter.length, 49 - 16);
    ASSERT_GE(tns->filter.order, 2);

    std::vector<double> a = {1};
    for (int m = 1; m <= tns->filter.order; m++) {
        const int index = tns->filter.index[m];
        const double k = std::sin(index * kPi / (index >= 0 ? 15 : 17));
        std::vector<double> next = a;
        next.push_back(0);
        for (size_t j = 1; j < next.size(); j++)
            next[j] += k * a[next.size() - 1 - j];
        a = next;
    }
    const size_t start = static_cast<size_t>(offsets[16]);
    const size_t end = static_cast<size_t>(offsets[40]);
    std::vector<double> restored(lines.begin(), lines.end());
    double filtered_energy = 0;
    double energy = 0;
    for (size_t n = start; n < end; n++) {
        for (size_t j = 1; j < a.size() && n - start >= j; j++)
            restored[n] -= a[j] * restored[n - j];
        EXPECT_NEAR(restored[n], original[n], 1000) << n; // 60 dB below the lines
        filtered_energy += 1.0 * lines[n] * lines[n];
        energy += 1.0 * original[n] * original[n];
    }
    EXPECT_LT(filtered_energy, energy / 2);
    EXPECT_TRUE(
        std::equal(original.begin() + offsets[40], original.end(), lines.begin() + offsets[40]));
    EXPECT_TRUE(std::equal(original.begin(), original.begin() + offsets[16], lines.begin()));
}

// A channel whose bands get chosen energies.
struct Noise : testing::Test {
    Encoder encoder{EncoderOptions{.channels = 1, .bit_rate = 64000}};
    EncTfState *tf = encoder.tf();
    AacEncCoderInfo *coder = tf->coderInfo[0];
    std::vector<int32_t> lines = std::vector<int32_t>(1024, 0);
    const uint8_t *widths = sr_info_aac[0] + 1;

    void SetUp() override
    {
        const std::vector<int16_t> pcm = render(silence(), 1, 1);
        ASSERT_FALSE(encoder.encode(pcm.data()).empty());
    }

    // A band energy of `energy`, in its first lines.
    void set_energy(int band, int64_t energy)
    {
        lines[static_cast<size_t>(coder->swbOffset[band])] =
            static_cast<int32_t>(std::ceil(std::sqrt(2147483648.0 * static_cast<double>(energy))));
    }
};

TEST_F(Noise, EnergiesAreTwiceTheLogarithm)
{
    const int first = 40; // the first band from line 653 on starts at line 672
    ASSERT_EQ(coder->swbOffset[first], 672);
    lines[100] = 1 << 20;
    set_energy(first, 1);
    set_energy(first + 1, 2);
    set_energy(first + 2, 1000);
    set_energy(first + 4, 21);
    AACENC_CalcPNS(lines.data(), coder, widths, tf);
    const int32_t energies[] = {41, 43, 61, 0, 0};
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(coder->noiseEnergy[first + i], energies[i]) << i;
        EXPECT_EQ(coder->noiseFlag[first + i], i < 4) << i;
    }
    EXPECT_EQ(coder->noiseFlag[first - 1], 0);
    EXPECT_EQ(lines[100], 1 << 20);
    EXPECT_NE(lines[static_cast<size_t>(coder->swbOffset[first + 2])], 0);
    EXPECT_EQ(lines[static_cast<size_t>(coder->swbOffset[first + 4])], 0); // the top band
}

TEST_F(Noise, SilenceAboveTheBandwidthIsNoNoise)
{
    std::fill(lines.begin(), lines.begin() + 653, 100000);
    lines[1000] = 200000; // energy 18
    AACENC_CalcPNS(lines.data(), coder, widths, tf);
    EXPECT_EQ(std::count(coder->noiseFlag, coder->noiseFlag + 49, 0), 49);
    EXPECT_EQ(lines[652], 100000);
    EXPECT_EQ(lines[1000], 0);
}

TEST(ChannelElements, ChannelsMapOntoOneElement)
{
    AacEncChInfo info[2];
    DetermineChInfo(&info[0], &info[1], 1);
    EXPECT_TRUE(info[0].present && !info[0].pair && info[0].tag == 0);
    EXPECT_FALSE(info[1].present);
    DetermineChInfo(&info[0], &info[1], 2);
    for (int ch = 0; ch < 2; ch++) {
        EXPECT_TRUE(info[ch].present && info[ch].pair && info[ch].tag == 0);
        EXPECT_EQ(info[ch].commonWindow, 0);
        EXPECT_EQ(info[ch].firstOfPair, ch == 0);
        EXPECT_EQ(info[ch].pairedChannel, 1 - ch);
    }
}

TEST(ChannelElements, MidAndSideAreHalvesTowardZero)
{
    Encoder encoder(EncoderOptions{});
    EncTfState *tf = encoder.tf();
    const std::vector<int16_t> pcm = render(silence(), 2, 1);
    ASSERT_FALSE(encoder.encode(pcm.data()).empty());
    int32_t *left = tf->channelBuffer[0];
    int32_t *right = tf->channelBuffer[1];
    const int32_t pairs[4][2] = {{7, -3}, {-7, 5}, {INT32_MAX, INT32_MAX}, {-9, -9}};
    for (int i = 0; i < 4; i++) {
        left[i] = pairs[i][0];
        right[i] = pairs[i][1];
    }
    MSEncode(tf->channelBuffer, tf->chInfo[0], tf->chInfo[1], tf->coderInfo[0], 2, tf);
    EXPECT_EQ(std::vector<int32_t>(left, left + 4),
              (std::vector<int32_t>{2, -1, INT32_MAX - 1, -8}));
    EXPECT_EQ(std::vector<int32_t>(right, right + 4), (std::vector<int32_t>{4, -5, 0, 0}));
    EXPECT_EQ(tf->chInfo[0]->commonWindow, 1);
    EXPECT_EQ(tf->chInfo[0]->ms.msMaskPresent, 1);
    EXPECT_EQ(std::count(tf->chInfo[0]->ms.msUsed, tf->chInfo[0]->ms.msUsed + 49, 1), 49);
}

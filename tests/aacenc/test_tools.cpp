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
static constexpr double kOne_q28 = 268435456.0;

// Lines that a click in the frame gives: a wave along the frequency axis, with some noise.
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

// One step from the predictor of order m - 1 to that of order m.
static void step_up(std::vector<double> &a, double k)
{
    a.push_back(0);
    const std::vector<double> before = a;
    for (size_t j = 1; j < a.size(); j++)
        a[j] += k * before[a.size() - 1 - j];
}

TEST(Tns, RecursionEqualsThePlainOne)
{
    for (const double position : {0.1, 0.37, 0.8}) {
        const std::vector<int32_t> lines = click_lines(position, 0.3);
        int32_t reflection[13];
        EXPECT_NE(LevinsonDurbin_fixed(1024, lines.data(), reflection), 0);
        double r[13] = {};
        for (size_t lag = 0; lag <= 12; lag++)
            for (size_t n = 0; n + lag < lines.size(); n++)
                r[lag] += 1.0 * lines[n + lag] * lines[n];
        std::vector<double> a = {1};
        double error = r[0];
        for (size_t m = 1; m <= 12; m++) {
            double k = 0;
            for (size_t j = 0; j < m; j++)
                k -= a[j] * r[m - j] / error;
            EXPECT_NEAR(reflection[m] / kOne_q28, k, 1e-5) << m;
            step_up(a, k);
            error *= 1 - k * k;
        }
    }
}

TEST(Tns, OnlyPredictableLinesAreWorthAFilter)
{
    int32_t reflection[13];
    const std::vector<int32_t> silent(1024, 0);
    EXPECT_EQ(LevinsonDurbin_fixed(1024, silent.data(), reflection), 0);
    EXPECT_EQ(std::count(reflection + 1, reflection + 13, 0), 12);
    EXPECT_EQ(LevinsonDurbin_fixed(1024, click_lines(0.3, 3).data(), reflection), 0);
    EXPECT_NE(LevinsonDurbin_fixed(1024, click_lines(0.3, 0.5).data(), reflection), 0);
}

TEST(Tns, StaysSoundOnAnyLines)
{
    std::mt19937 random(10);
    AacEncTns tns = {};
    TnsInit(48000, &tns);
    std::vector<int32_t> offsets(50, 1024);
    std::fill(offsets.begin(), offsets.begin() + 17, 0); // the filter takes all lines
    for (int i = 0; i < 200; i++) {
        std::vector<int32_t> lines(1024);
        const auto mode = random() % 4;
        const int32_t period = static_cast<int32_t>(random() % 1100) + 1;
        for (int32_t k = 0; k < 1024; k++) {
            const int32_t extreme = k / period % 2 == 0 ? INT32_MIN : INT32_MAX;
            const int32_t value = static_cast<int32_t>(static_cast<uint32_t>(random()));
            lines[static_cast<size_t>(k)] = mode == 0   ? extreme
                                            : mode == 1 ? value
                                            : mode == 2 ? value >> 28
                                                        : (k == period ? INT32_MIN : 0);
        }
        int32_t reflection[13];
        (void)LevinsonDurbin_fixed(1024, lines.data(), reflection);
        for (int m = 1; m <= 12; m++)
            EXPECT_LE(std::abs(reflection[m]), 1 << 28);
        int32_t work[2][1024];
        EXPECT_EQ(
            TnsEncode_fixedVer(49, 49, offsets.data(), lines.data(), &tns, 1, work[0], work[1]), 0);
    }
    std::fill(offsets.begin(), offsets.end(), 1024); // and here none
    EXPECT_EQ(TnsEncode_fixedVer(49, 49, offsets.data(), nullptr, &tns, 1, nullptr, nullptr), -2);
}

TEST(Tns, QuantiserDecidesByTheThresholds)
{
    const std::vector<std::pair<int32_t, int>> cases = {
        {0, 0},           {107374182, 1}, {-107374182, 0}, {536870911, 7},
        {-536870912, -7}, {268435456, 2}, {268435457, 3},  {-300000000, -2},
        {56118291, 0},    {56118292, 1},  {-56118291, 0},  {-146921700, -1},
    };
    int32_t reflection[13];
    int8_t indices[13];
    for (size_t i = 0; i < 12; i++)
        reflection[i + 1] = cases[i].first;
    QuantizeReflectionCoeffs_fixedVer(reflection, indices);
    for (size_t i = 0; i < 12; i++)
        EXPECT_EQ(indices[i + 1], cases[i].second) << cases[i].first;
    EXPECT_EQ(reflection[1], 0);
    EXPECT_EQ(reflection[2], 111621739);
    EXPECT_EQ(reflection[4], 533929876);
}

// One channel of an encoder that has coded a frame of silence: its band offsets are there.
struct Tools : testing::Test {
    Encoder encoder{EncoderOptions{.channels = 1, .bit_rate = 64000}};
    EncTfState *tf = encoder.tf();
    AacEncCoderInfo *coder = tf->coderInfo[0];
    std::vector<int32_t> lines = std::vector<int32_t>(1024, 0);

    void SetUp() override
    {
        ASSERT_FALSE(encoder.encode(render(silence(), 1, 1).data()).empty());
    }

    int32_t &first_line(int band)
    {
        return lines[static_cast<size_t>(coder->swbOffset[band])];
    }

    void set_energy(int band, double energy)
    {
        first_line(band) = static_cast<int32_t>(std::ceil(std::sqrt(2147483648.0 * energy)));
    }
};

// A decoder's filter, from the coefficients that the stream carries, gives the lines back.
TEST_F(Tools, TnsSynthesisRestoresTheLines)
{
    lines = click_lines(0.21, 0.2);
    const std::vector<int32_t> original = lines;
    AacEncTns *tns = tf->tns[0];
    ASSERT_EQ(TnsEncode_fixedVer(49, 49, coder->swbOffset, lines.data(), tns, 1, tf->work[0],
                                 tf->work[1]),
              0);
    ASSERT_EQ(tns->active, 1);
    EXPECT_EQ(tns->filter.length, 49 - 16);
    ASSERT_GE(tns->filter.order, 2);

    std::vector<double> a = {1};
    for (int m = 1; m <= tns->filter.order; m++) {
        const int index = tns->filter.index[m];
        step_up(a, std::sin(index * kPi / (index >= 0 ? 15 : 17)));
    }
    const size_t start = static_cast<size_t>(coder->swbOffset[16]);
    const size_t end = static_cast<size_t>(coder->swbOffset[40]);
    std::vector<double> restored(lines.begin(), lines.end());
    double gain = 0;
    for (size_t n = 0; n < 1024; n++) {
        for (size_t j = 1; n >= start + j && n < end && j < a.size(); j++)
            restored[n] -= a[j] * restored[n - j];
        EXPECT_NEAR(restored[n], original[n], 1000) << n; // 60 dB below the lines
        if (n >= start && n < end)
            gain += std::pow(original[n], 2) - 2 * std::pow(lines[n], 2);
    }
    EXPECT_GT(gain, 0);
}

TEST_F(Tools, NoiseEnergiesAreTwiceTheLogarithm)
{
    const int first = 40; // the first band from line 653 on, at line 672
    lines[100] = 1 << 20;
    set_energy(first, 1);
    set_energy(first + 1, 2);
    set_energy(first + 2, 1000);
    set_energy(first + 4, 21);
    AACENC_CalcPNS(lines.data(), coder, sr_info_aac[0] + 1, tf);
    const int32_t energies[] = {0, 41, 43, 61, 0, 0};
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(coder->noiseEnergy[first - 1 + i], energies[i]) << i;
        EXPECT_EQ(coder->noiseFlag[first - 1 + i], i > 0 && i < 5) << i;
    }
    EXPECT_EQ(lines[100], 1 << 20);
    EXPECT_NE(first_line(first + 2), 0);
    EXPECT_EQ(first_line(first + 4), 0); // the top band

    set_energy(first + 8, 18); // as good as silent
    set_energy(first, 0);
    set_energy(first + 1, 0);
    set_energy(first + 2, 0);
    AACENC_CalcPNS(lines.data(), coder, sr_info_aac[0] + 1, tf);
    EXPECT_EQ(std::count(coder->noiseFlag, coder->noiseFlag + 49, 0), 49);
    EXPECT_EQ(first_line(first + 8), 0);
}

TEST_F(Tools, MidAndSideAreHalvesTowardZero)
{
    int32_t *left = tf->channelBuffer[0];
    int32_t *right = tf->channelBuffer[1];
    std::copy_n(std::begin({7, -7, INT32_MAX, -9}), 4, left);
    std::copy_n(std::begin({-3, 5, INT32_MAX, -9}), 4, right);
    DetermineChInfo(tf->chInfo[0], tf->chInfo[1], 2);
    MSEncode(tf->channelBuffer, tf->chInfo[0], tf->chInfo[1], coder, 2, tf);
    EXPECT_EQ(std::vector<int32_t>(left, left + 4),
              (std::vector<int32_t>{2, -1, INT32_MAX - 1, -8}));
    EXPECT_EQ(std::vector<int32_t>(right, right + 4), (std::vector<int32_t>{4, -5, 0, 0}));
    EXPECT_EQ(tf->chInfo[0]->commonWindow, 1);
    EXPECT_EQ(tf->chInfo[0]->ms.msMaskPresent, 1);
    EXPECT_EQ(std::count(tf->chInfo[0]->ms.msUsed, tf->chInfo[0]->ms.msUsed + 49, 1), 49);
}

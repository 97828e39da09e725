#include "aacenc/tns.h"
#include "aacenc/tns_vector.h"
#include "tests/aacenc/encoder_harness.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <span>
#include <vector>

using std::numbers::pi;

static constexpr double kOne_q28 = 268435456.0;

// The lines of a click in the frame: a wave along the frequency axis, with some noise.
static std::vector<int32_t> click_lines(double position, double noise_level)
{
    std::mt19937 random(9);
    std::vector<int32_t> lines(1024);
    for (size_t k = 0; k < 1024; k++) {
        lines[k] = static_cast<int32_t>(
            1e6 * (std::cos(pi * position * (static_cast<double>(k) + 0.5)) +
                   noise_level * (static_cast<double>(random() % 2001) / 1000 - 1)));
    }
    return lines;
}

// One step from the predictor of order m - 1 to that of order m.
static void step_up(std::vector<double> &a, double k)
{
    a.push_back(0);
    const std::vector<double> before = a;
    for (size_t j = 1; j < a.size(); j++) {
        a[j] += k * before[a.size() - 1 - j];
    }
}

// Reflection coefficients of the lines by the plain recursion; [0] is not used.
static std::vector<double> plain_reflection(std::span<const int32_t> lines)
{
    std::vector<double> r(13);
    for (size_t lag = 0; lag <= 12; lag++) {
        for (size_t n = 0; n + lag < lines.size(); n++) {
            r[lag] += 1.0 * lines[n + lag] * lines[n];
        }
    }
    std::vector<double> reflection = {0};
    std::vector<double> a = {1};
    double error = r[0];
    for (size_t m = 1; m <= 12; m++) {
        double k = 0;
        for (size_t j = 0; j < m; j++) {
            k -= a[j] * r[m - j] / error;
        }
        reflection.push_back(k);
        step_up(a, k);
        error *= 1 - k * k;
    }
    return reflection;
}

// The decision of the 4-bit quantiser: the nearest value, but below 0 the next one toward 0.
static int plain_index(double k)
{
    const double steps = std::asin(k) / pi * (k < 0 ? 17 : 15);
    const int index = static_cast<int>(std::ceil(k < 0 ? steps + 0.5 : steps - 0.5));
    return k < 0 ? std::clamp(index, -7, 0) : std::min(index, 7);
}

struct Tools : SilentChannel {
    std::vector<int32_t> lines = std::vector<int32_t>(1024, 0);

    int32_t shape(const int32_t *offsets)
    {
        return TnsEncode_fixedVer(49, 49, offsets, lines.data(), tf->tns[0], 1, tf->work[0],
                                  tf->work[1]);
    }
};

// Checks coefficients, decisions, and the lines that a decoder's filter restores.
TEST_F(Tools, TnsEqualsThePlainModel)
{
    const size_t start = static_cast<size_t>(coder->swbOffset[16]);
    const size_t end = static_cast<size_t>(coder->swbOffset[40]);
    for (double position = 0.05; position < 1; position += 0.06) {
        SCOPED_TRACE(position);
        const std::vector<int32_t> original = lines = click_lines(position, 0.2);
        const auto range = std::span(original).subspan(start, end - start);
        ASSERT_EQ(shape(coder->swbOffset), 0);
        const AacEncTnsFilter &filter = tf->tns[0]->filter;
        EXPECT_EQ(tf->tns[0]->active, 1);
        EXPECT_EQ(filter.length, 49 - 16);
        ASSERT_GE(filter.order, 2);

        int32_t reflection[13];
        EXPECT_NE(
            LevinsonDurbin_fixed(static_cast<int32_t>(range.size()), range.data(), reflection), 0);
        const std::vector<double> expected = plain_reflection(range);
        std::vector<double> a = {1};
        for (size_t m = 1; m <= 12; m++) {
            EXPECT_NEAR(reflection[m] / kOne_q28, expected[m], 1e-5) << m;
            EXPECT_EQ(filter.index[m], plain_index(reflection[m] / kOne_q28)) << m;
            const double steps = filter.index[m] >= 0 ? 15 : 17;
            if (static_cast<int32_t>(m) <= filter.order) {
                step_up(a, std::sin(filter.index[m] * pi / steps));
            }
        }
        std::vector<double> restored(lines.begin(), lines.end());
        for (size_t n = 0; n < 1024; n++) {
            for (size_t j = 1; n >= start + j && n < end && j < a.size(); j++) {
                restored[n] -= a[j] * restored[n - j];
            }
            EXPECT_NEAR(restored[n], original[n], 1000) << n; // 60 dB below the lines
        }
    }
}

TEST_F(Tools, OnlyPredictableLinesAreWorthAFilter)
{
    for (const auto &kind : {click_lines(0.3, 0.5), click_lines(0.3, 3), lines}) {
        lines = kind;
        EXPECT_EQ(shape(coder->swbOffset), 0);
        EXPECT_EQ(tf->tns[0]->active, kind == click_lines(0.3, 0.5));
    }
    const std::vector<int32_t> no_lines(50, 1024);
    EXPECT_EQ(shape(no_lines.data()), -2);
}

// Small and large lines, the filter's sums up to their limit and past it, of all orders and ends.
TEST(Tns, FilterAndSumsAreExact)
{
    std::mt19937 random(11);
    const auto lagged = vector_tns_available() ? lagged_sum_vector : lagged_sum;
    for (int i = 0; i < 1000; i++) {
        SCOPED_TRACE(i);
        const int32_t order = i % 13;
        const int32_t count = static_cast<int32_t>(random() % 100) + 1;
        int32_t direct_form[13] = {1 << 29};
        for (int32_t tap = 1; tap <= order; tap++) {
            direct_form[tap] = static_cast<int32_t>(random()) >> (i % 7);
        }
        int32_t original[112];
        for (int32_t &line : original) {
            line = static_cast<int32_t>(random()) >> (i % 11);
        }
        uint64_t sum = 0;
        for (int32_t n = 0; n < count; n++) {
            const int64_t product = int64_t{original[n]} * original[n + order];
            sum += static_cast<uint64_t>(product >> 9);
        }
        ASSERT_EQ(lagged(original, count, order), sum);

        int32_t filtered[112];
        int32_t work[112];
        std::copy_n(original, 112, filtered);
        TnsInvFilter_fixedVer04(count, filtered, order, direct_form, work);
        for (int32_t n = 0; n < count; n++) {
            int64_t error = original[n];
            for (int32_t tap = 1; tap <= std::min(n, order); tap++) {
                error += int64_t{direct_form[tap]} * original[n - tap] >> 29;
            }
            ASSERT_EQ(filtered[n], std::clamp<int64_t>(error, INT32_MIN, INT32_MAX)) << n;
        }
        ASSERT_TRUE(std::equal(filtered + count, filtered + 112, original + count));
    }
}

TEST_F(Tools, TnsStaysInRangeOnAnyLines)
{
    std::mt19937 random(10);
    std::vector<int32_t> offsets(50, 1024);
    std::fill(offsets.begin(), offsets.begin() + 17, 0); // the filter takes all lines
    for (int i = 0; i < 400; i++) {
        const uint32_t period = static_cast<uint32_t>(random() % 1100) + 1;
        const auto alternating = [&](uint32_t k) {
            return k / period % 2 == 0 ? INT32_MIN : INT32_MAX;
        };
        const auto any = [&](uint32_t) { return static_cast<int32_t>(random()); };
        const auto small = [&](uint32_t k) { return any(k) >> 28; };
        const auto single = [&](uint32_t k) { return k == period ? INT32_MIN : 0; };
        const std::function<int32_t(uint32_t)> kinds[] = {alternating, any, small, single};
        for (uint32_t k = 0; k < 1024; k++) {
            lines[k] = kinds[i % 4](k);
        }
        int32_t reflection[13];
        (void)LevinsonDurbin_fixed(1024, lines.data(), reflection);
        for (int m = 1; m <= 12; m++) {
            EXPECT_LE(std::abs(reflection[m]), 1 << 28);
        }
        EXPECT_EQ(shape(offsets.data()), 0);
    }
}

#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"
#include "aacenc/quantiser_tables.h"
#include "aacenc/quantiser_vector.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

static int32_t quantise_magnitude(int32_t magnitude, int32_t gain)
{
    return quantise_power(power_three_quarters(static_cast<uint32_t>(magnitude)),
                          step_of_gain(gain).factor_q32);
}

TEST(Quantiser, EachGainHasItsFactorAndItsLeastMagnitudes)
{
    for (int32_t gain = kMinFactorGain; gain <= 200; gain++) {
        const gain_step step = step_of_gain(gain);
        EXPECT_EQ(step.factor_q32, quantfac_table[std::max(99 - gain, 0)] * 8);
        EXPECT_EQ(quantise_magnitude(step.least_one - 1, gain), 0) << gain;
        EXPECT_EQ(quantise_magnitude(step.least_one, gain), 1) << gain;
        EXPECT_EQ(quantise_magnitude(step.least_two - 1, gain), 1) << gain;
        EXPECT_EQ(quantise_magnitude(step.least_two, gain), 2) << gain;
    }
}

// Lines of all sizes, the ends of the table and of the straight lines, and the extremes.
static std::vector<int32_t> lines_of_all_sizes()
{
    std::vector<int32_t> lines = {0, 1, -1, 8190, 8191, -8191, INT32_MAX, INT32_MIN};
    for (const power_line &line : CalcPow_RageTable) {
        lines.insert(lines.end(), {line.start - 1, line.start, line.start + 1, -line.start});
    }
    std::mt19937 random(1);
    while (lines.size() < 20000) {
        const int shift = static_cast<int>(random() % 32);
        lines.push_back(static_cast<int32_t>(random()) >> shift);
    }
    return lines;
}

// Without vectors, the plain code is compared with itself.
static void expect_vectors_equal(const int32_t *band, int32_t count, const gain_step &step)
{
    const bool vectors = vector_quantiser_available();
    const uint32_t largest = largest_magnitude(band, count);
    ASSERT_EQ((vectors ? largest_magnitude_vector : largest_magnitude)(band, count), largest);
    int32_t powers[24];
    int32_t powers_by_vector[24];
    std::fill_n(powers, 24, INT32_MAX); // of the next band: as indices, far outside all tables
    raise_lines(band, count, powers);
    (vectors ? raise_lines_vector : raise_lines)(band, count, powers_by_vector);
    ASSERT_TRUE(std::equal(powers, powers + count, powers_by_vector));
    const int32_t max = quantise_power(power_three_quarters(largest), step.factor_q32);
    if (max > 0) {
        int32_t quantised[24];
        int32_t quantised_by_vector[24] = {};
        uint8_t book = 0;
        uint8_t book_by_vector = 0;
        const band_lines lines = {band, powers, step};
        const auto choose = vectors ? choose_codebook_vector : choose_codebook;
        ASSERT_EQ(choose(lines, count, max, &book_by_vector),
                  choose_codebook(lines, count, max, &book));
        ASSERT_EQ(book_by_vector, book);
        quantise_lines(lines, count, max, quantised);
        (vectors ? quantise_lines_vector : quantise_lines)(lines, count, max, quantised_by_vector);
        ASSERT_TRUE(std::equal(quantised, quantised + count, quantised_by_vector));
        ASSERT_EQ(std::count(quantised_by_vector + count, quantised_by_vector + 24, 0), 24 - count);
    }
}

TEST(Quantiser, VectorsEqualThePlainCode)
{
    const std::vector<int32_t> lines = lines_of_all_sizes();
    for (size_t at = 0; at + 24 <= lines.size(); at += 4) {
        SCOPED_TRACE(at);
        const int32_t gain = kMinFactorGain + static_cast<int32_t>(at / 4 % 94);
        expect_vectors_equal(lines.data() + at, 4 + 4 * static_cast<int32_t>(at / 4 % 5),
                             step_of_gain(gain));
    }
    for (int32_t gain = kMinFactorGain; gain <= 99; gain++) {
        SCOPED_TRACE(gain);
        const gain_step step = step_of_gain(gain);
        const int32_t least[8] = {step.least_one - 1, step.least_one, -step.least_one};
        expect_vectors_equal(least, 4, step);
        const int32_t both[8] = {step.least_one, 1 - step.least_two, step.least_two, 0};
        expect_vectors_equal(both, 4, step);
    }
}

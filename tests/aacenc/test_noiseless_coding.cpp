#include "aacenc/noiseless_coding.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

// Expects as many codewords as were counted.
// returns: their bits
static int32_t packed_bits(int32_t book, const int32_t *values)
{
    uint32_t entries[10];
    const uint32_t *end = pack_codewords(book, values, 4, entries);
    EXPECT_EQ(count_codewords(book, values, 4), end - entries) << book;
    int32_t bits = 0;
    for (const uint32_t *entry = entries; entry != end; entry++) {
        bits += static_cast<int32_t>(*entry >> 24);
    }
    return bits;
}

// Counting has tables of its own. They are compared for every group of four lines: all values of
// the signed codebooks 1, 2, 5 and 6, all magnitudes of the others, the lowest and highest
// magnitude of each length of escape.
TEST(NoiselessCoding, CountedBitsAreThoseOfTheCodewords)
{
    std::vector<int32_t> magnitudes(16);
    std::iota(magnitudes.begin(), magnitudes.end(), 0);
    for (int32_t power = 16; power < 8192; power *= 2) {
        magnitudes.insert(magnitudes.end(), {power, 2 * power - 1});
    }
    const gain_step step = step_of_gain(16);             // divides powers by 8
    constexpr size_t kChoices[6] = {3, 3, 9, 8, 13, 34}; // for a line, in the codebooks 2 * i + 1
    for (size_t i = 0; i < 6; i++) {
        const int32_t odd = static_cast<int32_t>(2 * i + 1);
        const int32_t even = odd == 11 ? 11 : odd + 1;
        const bool is_signed = odd == 1 || odd == 5;
        const size_t choices = kChoices[i];
        const int32_t middle = static_cast<int32_t>(choices / 2);
        const int32_t largest = is_signed ? middle : magnitudes[choices - 1];
        for (size_t group = 0; group < choices * choices * choices * choices; group++) {
            int32_t values[4];
            int32_t spectrum[4];
            int32_t powers[4];
            for (size_t k = 0, rest = group; k < 4; k++, rest /= choices) {
                const int32_t magnitude = magnitudes[rest % choices];
                values[k] = is_signed ? magnitude - middle : k % 2 != 0 ? -magnitude : magnitude;
                powers[k] = std::abs(values[k]) * 8;
                spectrum[k] = values[k] == 0             ? 1 - step.least_one
                              : std::abs(values[k]) == 1 ? step.least_one * values[k]
                                                         : step.least_two * values[k] / 2;
            }
            const int32_t odd_bits = packed_bits(odd, values);
            const int32_t even_bits = packed_bits(even, values);
            ASSERT_EQ(output_bits_check(odd, values, 4), odd_bits) << odd << ' ' << group;
            ASSERT_EQ(output_bits_check(even, values, 4), even_bits) << even << ' ' << group;
            uint8_t book = 0;
            int32_t quantised[4];
            const band_lines lines = {spectrum, powers, step};
            ASSERT_EQ(choose_codebook(lines, 4, largest, &book), std::min(even_bits, odd_bits));
            ASSERT_EQ(book, even_bits < odd_bits ? even : odd) << group;
            quantise_lines(lines, 4, largest, quantised);
            ASSERT_TRUE(std::equal(values, values + 4, quantised)) << odd << ' ' << group;
        }
    }
}

// The fast functions against the plain ones.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/filterbank.h"
#include "aacenc/filterbank_vector.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"
#include "aacenc/quantiser_tables.h"
#include "tests/aacenc/plain_filterbank.h"

#if defined(NDEBUG) && !defined(TDMBREC_CHECKED)
static constexpr int kRounds = 30;
#else
static constexpr int kRounds = 1;
#endif

static std::mt19937 make_random()
{
    const char *seed = std::getenv("SEED");
    const auto value = static_cast<uint32_t>(seed ? std::strtoul(seed, nullptr, 0) : 1);
    testing::Test::RecordProperty("SEED", static_cast<int>(value));
    return std::mt19937(value);
}

TEST(Equality, Transform)
{
    std::mt19937 random = make_random();
    const auto white = [&](uint32_t) { return static_cast<int16_t>(random()); };
    const auto quiet = [&](uint32_t) { return static_cast<int16_t>(random() % 7 - 3); };
    const auto extreme = [&](uint32_t) { return random() % 2 ? INT16_MAX : INT16_MIN; };
    const auto sparse = [&](uint32_t n) { return n * 37 % 251 ? 0 : INT16_MIN; };
    const std::function<int16_t(uint32_t)> signals[] = {white, quiet, extreme, sparse};
    for (int round = 0; round < 100 * kRounds; round++) {
        for (const auto &signal : signals) {
            std::array<int16_t, 2048> pcm;
            for (uint32_t n = 0; n < pcm.size(); n++)
                pcm[n] = signal(n);
            const auto expected = plain_transform<int32_t>(pcm.data() + 1024, pcm.data());
            std::vector<int32_t> lines(1024);
            transform_plain(pcm.data() + 1024, lines.data(), pcm.data());
            ASSERT_EQ(lines, expected) << "round " << round;
            if (!vector_transform_available())
                continue;
            transform_vector(pcm.data() + 1024, lines.data(), pcm.data());
            ASSERT_EQ(lines, expected) << "vectors, round " << round;
        }
    }
}

TEST(Equality, QuantisedLines)
{
    std::mt19937 random = make_random();
    for (int round = 0; round < 1000 * kRounds; round++) {
        std::array<int32_t, 100> lines;
        std::array<int32_t, 100> powers;
        std::array<int32_t, 100> values;
        for (int32_t &line : lines)
            line = static_cast<int32_t>(random()) >> random() % 32;
        const int32_t largest = raise_lines(lines.data(), 100, powers.data());
        ASSERT_EQ(largest, *std::max_element(powers.begin(), powers.end()));
        const int32_t factor_q29 = quantfac_table[round % 100];
        quantise_lines(lines.data(), powers.data(), 100, factor_q29, values.data());
        for (size_t k = 0; k < lines.size(); k++) {
            const int64_t magnitude = std::abs(int64_t{lines[k]});
            ASSERT_EQ(powers[k], power_three_quarters(static_cast<uint32_t>(magnitude)));
            const int64_t value = (int64_t{powers[k]} * factor_q29 + (1 << 27)) >> 29;
            ASSERT_EQ(values[k], lines[k] > 0 ? value : -value) << lines[k];
        }
    }
}

static int32_t packed_bits(int32_t book, const int32_t *values)
{
    uint32_t entries[10];
    int32_t bits = 0;
    for (const uint32_t *end = pack_codewords(book, values, 4, entries), *e = entries; e != end;
         e++)
        bits += static_cast<int32_t>(*e >> 24);
    return bits;
}

// Counting has tables of its own. Every group of four lines: all values of the signed codebooks 1,
// 2, 5 and 6, else all magnitudes, of those with an escape the lowest and highest of each length.
TEST(Equality, CountedBitsAreThoseOfTheCodewords)
{
    std::vector<int32_t> magnitudes(16);
    std::iota(magnitudes.begin(), magnitudes.end(), 0);
    for (int32_t power = 16; power < 8192; power *= 2)
        magnitudes.insert(magnitudes.end(), {power, 2 * power - 1});
    constexpr size_t kChoices[6] = {3, 3, 9, 8, 13, 34}; // for a line, in the codebooks 2 * i + 1
    for (size_t i = 0; i < 6; i++) {
        const int32_t odd = static_cast<int32_t>(2 * i + 1);
        const int32_t even = odd == 11 ? 11 : odd + 1;
        const bool is_signed = odd == 1 || odd == 5;
        const size_t choices = kChoices[i];
        const int32_t middle = static_cast<int32_t>(choices / 2);
        const int32_t largest = is_signed ? middle : magnitudes[choices - 1];
        for (size_t group = 0; group < choices * choices * choices * choices; group++) {
            int32_t powers[4];
            int32_t values[4];
            for (size_t k = 0, rest = group; k < 4; k++, rest /= choices) {
                const int32_t magnitude = magnitudes[rest % choices];
                values[k] = is_signed ? magnitude - middle : k % 2 != 0 ? -magnitude : magnitude;
                powers[k] = std::abs(values[k]);
            }
            const int32_t odd_bits = packed_bits(odd, values);
            const int32_t even_bits = packed_bits(even, values);
            ASSERT_EQ(output_bits_check(odd, values, 4), odd_bits) << odd << ' ' << group;
            ASSERT_EQ(output_bits_check(even, values, 4), even_bits) << even << ' ' << group;
            const BookChoice choice = choose_codebook({values, powers, 1 << 29}, 4, largest);
            ASSERT_EQ(choice.book, even_bits < odd_bits ? even : odd) << group;
            ASSERT_EQ(choice.bits, std::min(even_bits, odd_bits)) << group;
        }
    }
}

// The fast functions against the plain ones.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/bitstream.h"
#include "aacenc/filterbank.h"
#include "aacenc/filterbank_vector.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"
#include "aacenc/quantiser_tables.h"
#include "tests/aacenc/plain_encoder.h"
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

TEST(Equality, PowersAndQuantisedLines)
{
    std::mt19937 random = make_random();
    for (uint32_t magnitude = 0; magnitude < 600000; magnitude++)
        ASSERT_EQ(power_three_quarters(magnitude), plain_power(magnitude));
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
            const uint32_t bits = static_cast<uint32_t>(lines[k]);
            ASSERT_EQ(powers[k], plain_power(lines[k] < 0 ? 0U - bits : bits)) << lines[k];
            ASSERT_EQ(values[k], plain_quantise(lines[k], powers[k], factor_q29)) << lines[k];
        }
    }
}

TEST(Equality, CodebookBits)
{
    std::mt19937 random = make_random();
    constexpr int32_t kLargest[6] = {1, 2, 4, 7, 12, 8191}; // of the codebooks 2 * i + 1
    for (int round = 0; round < 6000 * kRounds; round++) {
        const int32_t odd = round % 6 * 2 + 1;
        const int32_t even = odd == 11 ? 11 : odd + 1;
        const int32_t largest = kLargest[odd / 2];
        const int32_t range = odd == 11 ? 1 << (4 + random() % 10) : largest + 1;
        std::array<int32_t, 96> values;
        std::array<int32_t, 96> powers;
        for (size_t k = 0; k < values.size(); k++) {
            const auto draw = static_cast<int32_t>(random() >> 1);
            powers[k] = draw % range;
            values[k] = draw >> 20 & 1 ? powers[k] : -powers[k];
        }
        const int32_t odd_bits = plain_bits(odd, values.data(), 96);
        const int32_t even_bits = plain_bits(even, values.data(), 96);
        ASSERT_EQ(output_bits_check(odd, values.data(), 96), odd_bits);
        ASSERT_EQ(output_bits_check(even, values.data(), 96), even_bits);
        const BookChoice choice =
            choose_codebook({values.data(), powers.data(), 1 << 29}, 96, largest);
        ASSERT_EQ(choice.book, even_bits < odd_bits ? even : odd);
        ASSERT_EQ(choice.bits, std::min(even_bits, odd_bits));
    }
}

TEST(Equality, EntriesOfACodewordList)
{
    std::mt19937 random = make_random();
    for (int round = 0; round < 1000 * kRounds; round++) {
        std::vector<uint32_t> entries(random() % 40);
        std::array<uint8_t, 128> expected;
        std::array<uint8_t, 128> written;
        expected.fill(0xA5);
        written.fill(0xA5);
        AacEncBitstream plain;
        AacEncBitstream fast;
        bitstream_start(&plain, expected.data());
        bitstream_start(&fast, written.data());
        BsPutBit(&plain, (1U << round % 9) - 1, round % 9);
        BsPutBit(&fast, (1U << round % 9) - 1, round % 9);
        for (uint32_t &entry : entries) {
            const auto draw = static_cast<uint32_t>(random());
            const uint32_t length = draw >> 27 < 25 ? draw >> 27 : 0;
            entry = length << 24 | (draw & ((1U << length) - 1));
            BsPutBit(&plain, entry & 0xFFFFFF, static_cast<int32_t>(length));
        }
        const int32_t count = static_cast<int32_t>(entries.size());
        const int32_t bits = bitstream_put_entries(&fast, entries.data(), count);
        ASSERT_EQ(bits + round % 9, AACENC_BsBufferNumBit(&plain));
        ASSERT_EQ(AACENC_BsBufferNumBit(&fast), AACENC_BsBufferNumBit(&plain));
        ASSERT_EQ(written, expected);
    }
}

#include "aacenc/band_tables.h"
#include "aacenc/filterbank_tables.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/noise_tables.h"
#include "aacenc/quantiser.h"
#include "aacenc/quantiser_tables.h"
#include "aacenc/tns_tables.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <numeric>
#include <span>
#include <utility>
#include <vector>

using std::numbers::pi;

static constexpr double kOne_q29 = 536870912.0;

TEST(Tables, FollowTheirFormulas)
{
    for (int n = 0; n < 1024; n++) {
        EXPECT_EQ(MDCT_WINDOW[n], std::trunc(kOne_q29 * std::sin(pi * (n + 0.5) / 2048))) << n;
    }
    EXPECT_EQ(CPLX_COEFF[0], 2147483647);
    EXPECT_EQ(CPLX_COEFF[256], 0);
    for (int k = 1; k < 256; k++) {
        const float cosine = static_cast<float>(std::cos(pi * k / 512));
        EXPECT_EQ(CPLX_COEFF[k], static_cast<double>(cosine) * 2147483648.0) << k;
    }
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(quantfac_table[i], std::floor(std::exp2(29 - 3 * (99 - i) / 16.0))) << i;
    }
    for (int i = 0; i < 32; i++) {
        EXPECT_NEAR(AacLc_Enc_cLog2Table[i], 32768 * (1 + std::log2(1 + i / 32.0)), 2.0) << i;
    }
    for (int j = 0; j < 16; j++) {
        const double threshold =
            j < 8 ? std::sin((j - 8.5) * pi / 17) : std::sin((j - 7.5) * pi / 15);
        EXPECT_EQ(search4[j], j == 10 ? 1 << 28 : std::trunc(kOne_q29 * threshold)) << j;
        const int n = j - 8;
        EXPECT_EQ(kArray_Out[j], std::trunc(kOne_q29 * std::sin(n * pi / (n < 0 ? 17 : 15))));
    }
}

TEST(Tables, PowersFollowTheCurve)
{
    for (int64_t x = 0; x < 8192; x++) {
        const int64_t y = CalcPow34[x];
        EXPECT_LE(y * y * y * y, x * x * x) << x;
        EXPECT_GT((y + 1) * (y + 1) * (y + 1) * (y + 1), x * x * x) << x;
    }
    // Chords below the curve. The last one has no end; it crosses the curve near the largest line
    // of the transform.
    for (uint32_t x = 8192; x < 54920000; x += x / 4096) {
        const double part = power_three_quarters(x) / std::pow(x, 0.75);
        EXPECT_GT(part, x < 1U << 22 ? 0.907 : 0.956) << x;
        EXPECT_LT(part, x < 1U << 25 ? 1.0 : 1.0086) << x;
    }
    for (const power_line &line : CalcPow_RageTable) {
        const uint32_t start = static_cast<uint32_t>(line.start);
        EXPECT_EQ(power_three_quarters(start), line.base);
        EXPECT_NEAR(power_three_quarters(start - 1), line.base, 1);
        EXPECT_NEAR(line.base, std::pow(start, 0.75), 1);
    }
}

// Prefix-free: no codeword starts another one. Complete: the codewords leave no gap.
static void expect_complete_code(std::span<const uint32_t> book)
{
    std::vector<std::pair<uint32_t, uint32_t>> ranges; // of the 24-bit words that start with a code
    for (const uint32_t entry : book) {
        const uint32_t length = entry >> 24;
        const uint32_t code = entry & 0xFFFFFF;
        ASSERT_TRUE(length >= 1 && length <= 24 && code >> length == 0) << std::hex << entry;
        ranges.emplace_back(code << (24 - length), (code + 1) << (24 - length));
    }
    std::sort(ranges.begin(), ranges.end());
    uint32_t end = 0;
    for (const auto &range : ranges) {
        EXPECT_EQ(range.first, std::exchange(end, range.second));
    }
    EXPECT_EQ(end, 1U << 24);
}

TEST(Tables, CodebooksArePrefixFreeAndComplete)
{
    constexpr size_t kEntries[11] = {81, 81, 81, 81, 81, 81, 64, 64, 169, 169, 289};
    for (size_t i = 0; i < 11; i++) {
        expect_complete_code({huff_table[i], kEntries[i]});
    }
    expect_complete_code(huff12);
    EXPECT_EQ(huff12[60], 0x01000000U);
}

TEST(Tables, BandsAddUpToTheFrame)
{
    for (const uint8_t(&row)[52] : sr_info_aac) {
        const uint8_t *end = row + 1 + row[0];
        EXPECT_EQ(std::accumulate(row + 1, end, 0), 1024);
        EXPECT_TRUE(
            std::all_of(row + 1, end, [](int width) { return width > 0 && width % 4 == 0; }));
        EXPECT_EQ(end[-1] % 8, 0); // no vector of eight lines leaves the frame
    }
}

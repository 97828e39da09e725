#include "aacenc/fft.h"
#include "aacenc/filterbank.h"
#include "aacenc/filterbank_vector.h"
#include "aacenc/transform_stages.h"
#include "tests/support/stream_hash.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <utility>
#include <vector>

using std::numbers::pi;

// One of the 2048 samples of two frames, of any value.
struct AnySample {
    size_t number;
};

// All values of a number in the transform: a sum of all samples, each times a factor, and an
// interval of the rounding error.
struct Reach {
    std::array<double, 2048> factors = {};
    double lowest_error = 0;
    double highest_error = 0;
};

static double largest = 0; // magnitude of all numbers made so far

static Reach noted(const Reach &reach)
{
    double magnitude = std::max(-reach.lowest_error, reach.highest_error);
    for (const double factor : reach.factors) {
        magnitude += 32768 * std::abs(factor);
    }
    largest = std::max(largest, magnitude);
    return reach;
}

static Reach add_scaled(Reach a, const Reach &b, double scale)
{
    for (size_t n = 0; n < a.factors.size(); n++) {
        a.factors[n] += scale * b.factors[n];
    }
    const auto [low, high] = std::minmax({scale * b.lowest_error, scale * b.highest_error});
    return noted({a.factors, a.lowest_error + low, a.highest_error + high});
}

static Reach add_s32(const Reach &a, const Reach &b)
{
    return add_scaled(a, b, 1);
}

static Reach sub_s32(const Reach &a, const Reach &b)
{
    return add_scaled(a, b, -1);
}

static Reach negate_s32(const Reach &a)
{
    return add_scaled({}, a, -1);
}

static Reach mulhi(const Reach &a, word_s32 b)
{
    return add_scaled({.lowest_error = -1}, a, std::ldexp(b, -32));
}

static Reach mul_q31(const Reach &a, word_s32 b_q31)
{
    return add_scaled({}, mulhi(a, b_q31), 2);
}

struct ReachPair {
    Reach sum;
    Reach difference;
};

static ReachPair add_sub_twice(const Reach &a, const Reach &b)
{
    return {add_scaled(a, b, 2), add_scaled(a, b, -2)};
}

static Reach mul_add_q31(const Reach &a, word_s32 c_q31, const Reach &b, word_s32 d_q31)
{
    return add_s32(mul_q31(a, c_q31), mul_q31(b, d_q31));
}

static Reach mul_sub_q31(const Reach &a, word_s32 c_q31, const Reach &b, word_s32 d_q31)
{
    return sub_s32(mul_q31(a, c_q31), mul_q31(b, d_q31));
}

static Reach mul_add_q28(AnySample a, int32_t c_q28, AnySample b, int32_t d_q28)
{
    Reach sum = {.lowest_error = -1};
    sum.factors[a.number] = std::ldexp(c_q28, -28);
    sum.factors[b.number] = std::ldexp(d_q28, -28);
    return noted(sum);
}

static Reach mul_sub_q28(AnySample a, int32_t c_q28, AnySample b, int32_t d_q28)
{
    return mul_add_q28(a, c_q28, b, -d_q28);
}

static void expect_bits(double bits)
{
    EXPECT_NEAR(std::log2(std::exchange(largest, 0)), bits, 0.005);
}

// Checks the bounds of docs/fixed-point.md, which some samples reach except for the rounding.
// returns: the lines
static std::vector<Reach> transform_all_samples()
{
    std::array<AnySample, 2048> pcm;
    for (size_t n = 0; n < pcm.size(); n++) {
        pcm[n] = {n};
    }
    std::vector<Reach> z(1024);
    fold_and_twiddle(pcm.data() + 1024, pcm.data(), z.data());
    expect_bits(16.77);
    transform_quads(z.data(), kFftPoints);
    expect_bits(18.71);
    transform_eights(z.data(), kFftPoints / 8, kSqrtHalf_q31);
    expect_bits(19.70);
    transform_groups<8>(z.data(), kFftPoints);
    expect_bits(21.70);
    transform_groups<32>(z.data(), kFftPoints);
    expect_bits(23.70);
    transform_groups<128>(z.data(), kFftPoints);
    expect_bits(25.70);
    post_twiddle(z.data());
    expect_bits(25.71);
    return z;
}

// The definition: -2 * sum of w[n] x[n] cos(2 pi / 2048 * (n + 512.5) * (k + 1/2)). Every product
// is rounded down; in the worst case all errors of a line add up.
TEST(Filterbank, EveryLineOfAnySamplesIsInRangeAndAsDefined)
{
    const std::vector<Reach> lines = transform_all_samples();
    for (size_t k = 0; k < 1024; k++) {
        double inexact = 0; // from the rounded constants, for the worst samples
        for (size_t n = 0; n < 2048; n++) {
            const double x = static_cast<double>(n);
            const double angle = 2 * pi / 2048 * (x + 512.5) * (static_cast<double>(k) + 0.5);
            const double factor = -2 * std::sin(pi * (x + 0.5) / 2048) * std::cos(angle);
            inexact += 32768 * std::abs(lines[k].factors[n] - factor);
        }
        EXPECT_LT(inexact, 10) << k;
        EXPECT_GT(lines[k].lowest_error - inexact, -6750) << k;
        EXPECT_LT(lines[k].highest_error + inexact, 6750) << k;
    }
}

// One radix-2 stage over one group of 2 * span points.
static int32_t *AACE_FFT_sInnerLoop(int32_t *data, const int32_t *table, int32_t span,
                                    int32_t stride)
{
    const int32_t quarter = std::max(span / 2, 1); // of the circle
    for (int32_t k = 0; k < span; k++) {
        int32_t *a = data + 2 * k;
        int32_t *b = a + 2 * span;
        word_s32 re = b[0];
        word_s32 im = b[1];
        const int32_t entry = k % quarter * stride;
        if (entry != 0) {
            re = mul_add_q31(b[0], table[entry], b[1], table[kQuarterWave - entry]);
            im = mul_sub_q31(b[1], table[entry], b[0], table[kQuarterWave - entry]);
        }
        if (k >= quarter) {
            re = std::exchange(im, -re);
        }
        b[0] = static_cast<int32_t>(a[0] - re);
        b[1] = static_cast<int32_t>(a[1] - im);
        a[0] = static_cast<int32_t>(a[0] + re);
        a[1] = static_cast<int32_t>(a[1] + im);
    }
    return data + 4 * span;
}

// The FFT, stage by stage. The third stage rounds in its own way.
static void transform_by_stages(int32_t *data)
{
    for (int32_t span = 1; span < kFftPoints; span *= 2) {
        if (span == 4) {
            AACE_FFT_sInnerLoop_Stg2(data, kFftPoints / 8, kSqrtHalf_q31);
            continue;
        }
        for (int32_t *group = data; group != data + 2 * kFftPoints;) {
            group = AACE_FFT_sInnerLoop(group, CPLX_COEFF, span, kFftPoints / span);
        }
    }
}

// Two stages in one pass change no bit.
TEST(Fft, EqualsOneStageAtATime)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; round++) {
        std::array<int32_t, 1024> points;
        for (int32_t &number : points) { // at the bound of the pre-twiddle
            number = static_cast<int32_t>(random() % 220000) - 110000;
            number = round % 2 == 0 ? number : number < 0 ? -110000 : 110000;
        }
        std::array<int32_t, 1024> expected = points;
        AACENC_gCmplxFft(points.data(), kFftPoints);
        transform_by_stages(expected.data());
        ASSERT_EQ(points, expected) << round;
    }
}

// Compares the portable and the vector transform bit for bit.
TEST(Filterbank, GivesTheSameLinesEverywhere)
{
    std::mt19937 random(1);
    uint64_t hash = kHashStart;
    for (int round = 0; round < 400; round++) {
        int16_t pcm[2048];
        for (int16_t &sample : pcm) {
            sample = static_cast<int16_t>(random());
            if (round % 2 != 0) {
                sample = sample < 0 ? INT16_MIN : INT16_MAX;
            }
        }
        std::array<int32_t, 1024> lines;
        transform_plain(pcm + 1024, lines.data(), pcm);
        hash = stream_hash(hash, {reinterpret_cast<const uint8_t *>(lines.data()), sizeof(lines)});
        std::array<int32_t, 1024> vector_lines = lines;
        if (vector_transform_available()) {
            transform_vector(pcm + 1024, vector_lines.data(), pcm);
        }
        ASSERT_EQ(vector_lines, lines) << round;
    }
    EXPECT_EQ(hash, 0xe11901d20b8bf1d4) << std::hex << hash;
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/aacenc/plain_filterbank.h"

// One of the 2048 samples of two frames, of any value.
struct AnySample {
    size_t number;
};

// What a number of the transform can be: a sum of all samples, each times a factor, and an error
// between two bounds for what was rounded off on the way.
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

// a times a factor
static Reach scaled(Reach a, double factor)
{
    for (double &each : a.factors) {
        each *= factor;
    }
    const auto [low, high] = std::minmax(a.lowest_error * factor, a.highest_error * factor);
    return {a.factors, low, high};
}

static Reach operator+(Reach a, const Reach &b)
{
    for (size_t n = 0; n < a.factors.size(); n++) {
        a.factors[n] += b.factors[n];
    }
    return noted({a.factors, a.lowest_error + b.lowest_error, a.highest_error + b.highest_error});
}

static Reach operator-(const Reach &a)
{
    return scaled(a, -1);
}

static Reach operator-(const Reach &a, const Reach &b)
{
    return a + -b;
}

static Reach fold_samples(AnySample a, int32_t window_a, AnySample b, int32_t window_b)
{
    Reach sum;
    sum.factors[a.number] = std::ldexp(window_a, -28);
    sum.factors[b.number] = std::ldexp(window_b, -28);
    sum.lowest_error = -1;
    return noted(sum);
}

static Reach product_q31(const Reach &a, int32_t b_q31)
{
    Reach product = scaled(a, std::ldexp(b_q31, -31));
    product.lowest_error -= 2;
    return noted(product);
}

static std::vector<AnySample> all_samples()
{
    std::vector<AnySample> samples;
    for (size_t n = 0; n < 2048; n++) {
        samples.push_back({n});
    }
    return samples;
}

// The bounds of docs/fixed-point.md. Some input reaches them but for the rounding.
TEST(Filterbank, NoSamplesTakeAStageBeyondItsBound)
{
    const auto expect_bits = [](double bits) {
        EXPECT_NEAR(std::log2(std::exchange(largest, 0)), bits, 0.005);
    };
    const std::vector<AnySample> pcm = all_samples();
    const auto u = plain_fold<Reach>(pcm.data() + 1024, pcm.data());
    expect_bits(16.50);
    auto z = plain_pre_twiddle(u);
    expect_bits(16.77);
    plain_reverse_bits(z);
    size_t span = 1;
    for (const double bits : {17.77, 18.71, 19.70, 20.70, 21.70, 22.70, 23.70, 24.70, 25.70}) {
        SCOPED_TRACE(span);
        plain_stage(z, std::exchange(span, 2 * span));
        expect_bits(bits);
    }
    (void)plain_post_twiddle(z);
    expect_bits(25.71);
}

// The definition: -2 * sum of w[n] x[n] cos(2 pi / 2048 * (n + 512.5) * (k + 1/2)). Every product
// is rounded down; the worst case is where all errors of a line add up.
TEST(Filterbank, EveryLineIsThatOfTheDefinition)
{
    constexpr double kPi = 3.14159265358979323846;
    const std::vector<AnySample> pcm = all_samples();
    const std::vector<Reach> lines = plain_transform<Reach>(pcm.data() + 1024, pcm.data());
    for (size_t k = 0; k < 1024; k++) {
        double inexact = 0; // by the constants' rounding, for the worst samples
        for (size_t n = 0; n < 2048; n++) {
            const double x = static_cast<double>(n);
            const double angle = 2 * kPi / 2048 * (x + 512.5) * (static_cast<double>(k) + 0.5);
            const double factor = -2 * std::sin(kPi * (x + 0.5) / 2048) * std::cos(angle);
            inexact += 32768 * std::abs(lines[k].factors[n] - factor);
        }
        EXPECT_LT(inexact, 10) << k;
        EXPECT_GT(lines[k].lowest_error - inexact, -6750) << k;
        EXPECT_LT(lines[k].highest_error + inexact, 6750) << k;
    }
}

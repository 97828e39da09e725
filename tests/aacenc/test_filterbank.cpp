#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/fft.h"
#include "aacenc/filterbank.h"
#include "tests/aacenc/encoder_harness.h"

static constexpr double kPi = 3.14159265358979323846;

// The definition: -2 * sum of w[n] x[n] cos(2 pi / 2048 * (n + 512.5) * (k + 1/2)).
static std::vector<double> plain_mdct(const int16_t *prev, const int16_t *cur)
{
    static const std::vector<double> cosine = [] {
        std::vector<double> table(8192);
        for (int i = 0; i < 8192; i++)
            table[static_cast<size_t>(i)] = std::cos(2 * kPi * i / 8192);
        return table;
    }();
    std::vector<double> spectrum(1024);
    for (int n = 0; n < 2048; n++) {
        const double sample = n < 1024 ? prev[n] : cur[n - 1024];
        const double windowed = -2 * sample * std::sin(kPi * (n + 0.5) / 2048);
        for (int k = 0; k < 1024; k++)
            spectrum[static_cast<size_t>(k)] +=
                windowed * cosine[static_cast<size_t>((2 * n + 1025) * (2 * k + 1) % 8192)];
    }
    return spectrum;
}

// Every product is rounded down. Where all of a stage's errors add up, at the zero frequency of the
// FFT and its neighbours, that leaves an offset: of line 1023 most, and of the lowest and highest
// lines. One step of a 16-bit sample in all of them moves line 0 by 1300.
static double error_bound(size_t line)
{
    return line == 1023 ? 1200 : line < 16 || line >= 1008 ? 450 : 120;
}

TEST(Filterbank, EqualsThePlainTransform)
{
    const Signal signals[] = {sweep(2048),       square_wave(1),      square_wave(37),
                              square_wave(1024), square_wave(100000), noise(1, 1),
                              noise(2, 0.0001),  tone(0.0113, 1),     tone(0.49, 1),
                              impulses(700),     tone(0.25, 0.01)};
    for (size_t i = 0; i < std::size(signals); i++) {
        const std::vector<int16_t> pcm = render(signals[i], 1, 2);
        int32_t lines[1024];
        buffer2freq(pcm.data() + 1024, lines, pcm.data(), 1);
        const std::vector<double> expected = plain_mdct(pcm.data(), pcm.data() + 1024);
        for (size_t k = 0; k < 1024; k++)
            ASSERT_NEAR(lines[k], expected[k], error_bound(k)) << "signal " << i << " line " << k;
    }
}

TEST(Filterbank, FullScaleStaysWithinItsRange)
{
    // The worst case of a line: every sample has the sign of the line's cosine. The checked build
    // stops at an overflow inside.
    for (const int line : {0, 1, 2, 255, 511, 512, 1023}) {
        std::vector<int16_t> pcm(2048);
        for (int n = 0; n < 2048; n++) {
            const double cosine = std::cos(2 * kPi / 2048 * (n + 512.5) * (line + 0.5));
            pcm[static_cast<size_t>(n)] = cosine < 0 ? INT16_MIN : INT16_MAX;
        }
        int32_t lines[1024];
        buffer2freq(pcm.data() + 1024, lines, pcm.data(), 1);
        EXPECT_LT(lines[line], -50000000);
        EXPECT_GT(lines[line], -(1 << 26));
    }
}

TEST(Filterbank, FirstFrameIsSilent)
{
    const std::vector<int16_t> pcm = render(noise(3, 1), 1, 2);
    std::vector<int32_t> lines(1024, 1);
    buffer2freq(pcm.data() + 1024, lines.data(), pcm.data(), 0);
    EXPECT_EQ(lines, std::vector<int32_t>(1024, 0));
}

TEST(Filterbank, FftEqualsThePlainSum)
{
    std::mt19937 random(4);
    std::vector<int32_t> data(1024);
    for (int32_t &value : data)
        value = static_cast<int32_t>(random() % 262144) - 131072;
    std::vector<int32_t> transformed = data;
    AACENC_gCmplxFft(transformed.data(), 512);
    double error_energy = 0;
    for (size_t k = 0; k < 512; k++) {
        std::complex<double> sum = 0;
        for (size_t n = 0; n < 512; n++)
            sum += std::complex<double>(data[2 * n], data[2 * n + 1]) *
                   std::polar(1.0, -2 * kPi * static_cast<double>(n * k % 512) / 512);
        EXPECT_NEAR(transformed[2 * k], sum.real(), 300) << k;
        EXPECT_NEAR(transformed[2 * k + 1], sum.imag(), 300) << k;
        error_energy +=
            std::norm(sum - std::complex<double>(transformed[2 * k], transformed[2 * k + 1]));
    }
    EXPECT_LT(std::sqrt(error_energy / 512), 40);
}

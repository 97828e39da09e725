#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/filterbank.h"
#include "tests/aacenc/encoder_harness.h"

static constexpr double kPi = 3.14159265358979323846;

// cos(2 pi / 2048 * (n + 512.5) * (k + 1/2))
static double basis(int n, int k)
{
    static const std::vector<double> cosine = [] {
        std::vector<double> table;
        for (int i = 0; i < 8192; i++)
            table.push_back(std::cos(2 * kPi * i / 8192));
        return table;
    }();
    return cosine[static_cast<size_t>((2 * n + 1025) * (2 * k + 1) % 8192)];
}

// Every product is rounded down. Where all of a stage's errors add up, at the zero frequency of the
// FFT and its neighbours, that leaves an offset: of line 1023 most, and of the lowest and highest
// lines. One step of a 16-bit sample in all of them moves line 0 by 1300.
static double error_bound(int line)
{
    return line == 1023 ? 1200 : line < 16 || line >= 1008 ? 450 : 120;
}

// The definition, in double precision: -2 * sum of w[n] x[n] basis(n, k).
static void expect_lines(const std::vector<int16_t> &pcm, int from, int to)
{
    double windowed[2048];
    for (int n = 0; n < 2048; n++)
        windowed[n] = -2 * pcm[static_cast<size_t>(n)] * std::sin(kPi * (n + 0.5) / 2048);
    int32_t lines[1024];
    buffer2freq(pcm.data() + 1024, lines, pcm.data(), 1);
    for (int k = from; k < to; k++) {
        double expected = 0;
        for (int n = 0; n < 2048; n++)
            expected += windowed[n] * basis(n, k);
        ASSERT_NEAR(lines[k], expected, error_bound(k)) << k;
    }
}

TEST(Filterbank, EqualsThePlainTransform)
{
    for (const Signal &signal :
         {square_wave(1), square_wave(37), square_wave(1024), square_wave(100000), noise(1, 1),
          noise(2, 0.0001), tone(0.0113, 1), tone(0.49, 1), impulses(700), tone(0.25, 0.01)})
        expect_lines(render(signal, 1, 2), 0, 1024);
}

// The worst case of a line, for every one of them: each sample has the sign of the line's cosine.
// The checked build stops at an overflow inside.
TEST(Filterbank, FullScaleStaysWithinItsRange)
{
    for (int line = 0; line < 1024; line++) {
        SCOPED_TRACE(line);
        std::vector<int16_t> pcm;
        for (int n = 0; n < 2048; n++)
            pcm.push_back(basis(n, line) < 0 ? INT16_MIN : INT16_MAX);
        expect_lines(pcm, line, line + 1);
        if (line % 256 == 1)
            expect_lines(pcm, 0, 1024);
    }
}

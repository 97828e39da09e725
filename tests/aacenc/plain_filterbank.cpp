#include "tests/aacenc/plain_encoder.h"

#include <utility>

#include "aacenc/filterbank_tables.h"

static int32_t mul_q31(int32_t a, int32_t b)
{
    return static_cast<int32_t>((int64_t{a} * b) >> 32) * 2;
}

struct Factor {
    int32_t re;
    int32_t im;
};

static Factor times(Factor a, Factor b)
{
    return {mul_q31(a.re, b.re) - mul_q31(a.im, b.im), mul_q31(a.im, b.re) + mul_q31(a.re, b.im)};
}

// before + 2j sin(-2 pi / 2048) * current
static Factor next(Factor before, Factor current)
{
    constexpr int32_t kTwiceSin = -13176773;
    return {before.re - mul_q31(current.im, kTwiceSin), before.im + mul_q31(current.re, kTwiceSin)};
}

// The factor of butterfly k, e^(-j pi k / span). The products of an angle beyond a quarter turn are
// those of the mirrored one with their signs changed.
static Factor rotate(Factor z, int32_t k, int32_t span)
{
    const bool mirrored = 2 * k > span;
    const int32_t entry = (mirrored ? span - k : k) * (512 / span);
    const int32_t cosine = CPLX_COEFF[entry];
    const int32_t sine = CPLX_COEFF[256 - entry];
    if (k == 0)
        return z;
    if (2 * k == span)
        return {z.im, -z.re};
    if (span == 4) { // sqrt(1/2) multiplies the sum
        const Factor sum = {mul_q31(z.im + z.re, 1518500224), mul_q31(z.im - z.re, 1518500224)};
        return mirrored ? Factor{sum.im, -sum.re} : sum;
    }
    if (mirrored)
        return {mul_q31(z.im, sine) - mul_q31(z.re, cosine),
                -(mul_q31(z.im, cosine) + mul_q31(z.re, sine))};
    return {mul_q31(z.re, cosine) + mul_q31(z.im, sine),
            mul_q31(z.im, cosine) - mul_q31(z.re, sine)};
}

static void fft(Factor *z)
{
    for (int32_t i = 0; i < 512; i++) {
        int32_t reversed = 0;
        for (int32_t bit = 0; bit < 9; bit++)
            reversed |= (i >> bit & 1) << (8 - bit);
        if (i < reversed)
            std::swap(z[i], z[reversed]);
    }
    for (int32_t span = 1; span < 512; span *= 2) {
        for (int32_t i = 0; i < 512; i++) {
            if (i & span)
                continue;
            const Factor a = z[i];
            const Factor b = rotate(z[i + span], i & (span - 1), span);
            z[i] = {a.re + b.re, a.im + b.im};
            z[i + span] = {a.re - b.re, a.im - b.im};
        }
    }
}

void plain_transform(const int16_t *cur, int32_t *spec, const int16_t *prev)
{
    int32_t u[1024];
    for (int32_t i = 0; i < 512; i++) {
        const int64_t rise = MDCT_WINDOW[i];
        const int64_t fall = MDCT_WINDOW[1023 - i];
        u[512 + i] = static_cast<int32_t>((prev[1023 - i] * fall - prev[i] * rise) >> 28);
        u[511 - i] = static_cast<int32_t>((cur[1023 - i] * rise + cur[i] * fall) >> 28);
    }
    Factor z[512];
    Factor before = {2147477962, 4941293};
    Factor t = {2147483015, -1647099};
    for (int32_t m = 0; m < 512; m++) {
        z[m] = times({u[2 * m], u[1023 - 2 * m]}, t);
        before = std::exchange(t, next(before, t));
    }
    fft(z);
    before = {2147473540, 6588386};
    t = {2147483647, 0};
    for (int32_t k = 0; k < 256; k++) {
        const Factor low = times(z[k], t);
        before = std::exchange(t, next(before, t));
        const Factor x = z[511 - k]; // times the conjugate of t
        spec[2 * k] = low.re;
        spec[1023 - 2 * k] = -low.im;
        spec[2 * k + 1] = mul_q31(x.re, t.re) + mul_q31(x.im, t.im);
        spec[1022 - 2 * k] = mul_q31(x.im, t.re) - mul_q31(x.re, t.im);
    }
}

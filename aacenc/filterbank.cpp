#include "aacenc/filterbank.h"

#include <algorithm>

#include "aacenc/encoder_state.h"
#include "aacenc/fft.h"
#include "aacenc/filterbank_tables.h"
#include "aacenc/fixed_point.h"

static constexpr int32_t kHalf = kFrameLines / 2; // points of the complex FFT

// Consecutive twiddle factors cos + j sin, an angle of -2 pi / 2048 apart, by the recurrence
// next = before + 2j sin(angle) * current. Q31.
struct Rotation {
    int32_t cos_q31;
    int32_t sin_q31;
    int32_t cos_before_q31;
    int32_t sin_before_q31;
};

static constexpr int32_t kTwiceSinStep_q31 = -13176773;

// First angle -2 pi / 8192.
static constexpr Rotation kPreTwiddle = {2147483015, -1647099, 2147477962, 4941293};

// First angle 0.
static constexpr Rotation kPostTwiddle = {2147483647, 0, 2147473540, 6588386};

static void advance(Rotation *t)
{
    const int32_t cos_q31 = sub_s32(t->cos_before_q31, mul_q31(t->sin_q31, kTwiceSinStep_q31));
    const int32_t sin_q31 = add_s32(t->sin_before_q31, mul_q31(t->cos_q31, kTwiceSinStep_q31));
    *t = {cos_q31, sin_q31, t->cos_q31, t->sin_q31};
}

// Products of 16 bits and Q29 over 2^28: twice the windowed sample.
// out |u| < 2 * 32768 * sqrt(2) < 2^17
static void fold_windowed(const int16_t *cur, const int16_t *prev, int32_t *u)
{
    for (int32_t i = 0; i < kHalf; i++) {
        const int32_t rise_q29 = MDCT_WINDOW[i];
        const int32_t fall_q29 = MDCT_WINDOW[1023 - i];
        u[512 + i] =
            narrow_s32((mul_s64(prev[1023 - i], fall_q29) - mul_s64(prev[i], rise_q29)) >> 28);
        u[511 - i] =
            narrow_s32((mul_s64(cur[1023 - i], rise_q29) + mul_s64(cur[i], fall_q29)) >> 28);
    }
}

// Pairs u[2m] + j u[1023 - 2m] to z[m] and rotates it.
static void pre_twiddle(int32_t *u)
{
    Rotation t = kPreTwiddle;
    for (int32_t m = 0; m < kHalf; m++) {
        const int32_t x = u[2 * m];
        int32_t y = u[2 * m + 1]; // second half: moved here by the first
        if (m < kHalf / 2)
            std::swap(y, u[1023 - 2 * m]);
        u[2 * m] = sub_s32(mul_q31(x, t.cos_q31), mul_q31(y, t.sin_q31));
        u[2 * m + 1] = add_s32(mul_q31(y, t.cos_q31), mul_q31(x, t.sin_q31));
        advance(&t);
    }
}

// Rotates the point at each end by t and by the next t, conjugated, and unfolds them to lines.
static void post_twiddle(int32_t *spec)
{
    Rotation t = kPostTwiddle;
    for (int32_t k = 0; k < kHalf / 2; k++) {
        int32_t *low = spec + 2 * k;
        int32_t *high = spec + 1022 - 2 * k;
        const int32_t low_re = sub_s32(mul_q31(low[0], t.cos_q31), mul_q31(low[1], t.sin_q31));
        const int32_t low_im = add_s32(mul_q31(low[1], t.cos_q31), mul_q31(low[0], t.sin_q31));
        advance(&t);
        const int32_t high_re = add_s32(mul_q31(high[0], t.cos_q31), mul_q31(high[1], t.sin_q31));
        const int32_t high_im = sub_s32(mul_q31(high[1], t.cos_q31), mul_q31(high[0], t.sin_q31));
        low[0] = low_re;
        high[1] = sub_s32(0, low_im);
        low[1] = high_re;
        high[0] = high_im;
    }
}

void buffer2freq(const int16_t *cur, int32_t *spec, const int16_t *prev, uint32_t frameCounter)
{
    if (frameCounter == 0) {
        std::fill_n(spec, kFrameLines, 0);
        return;
    }
    fold_windowed(cur, prev, spec);
    pre_twiddle(spec);
    AACENC_gCmplxFft(spec, kHalf);
    post_twiddle(spec);
}

#include "aacenc/filterbank.h"

#include <algorithm>

#include "aacenc/encoder_state.h"
#include "aacenc/fft.h"
#include "aacenc/filterbank_tables.h"
#include "aacenc/filterbank_twiddles.h"
#include "aacenc/filterbank_vector.h"
#include "aacenc/fixed_point.h"

static constexpr int32_t kHalf = kFrameLines / 2; // points of the complex FFT

// Products of 16 bits and Q29 over 2^28: twice the windowed sample.
// out |u| < 2 * 32768 * sqrt(2) < 2^17
static int32_t fold_previous(const int16_t *prev, int32_t i)
{
    const int64_t fall = mul_s64(prev[1023 - i], MDCT_WINDOW[1023 - i]);
    return narrow_s32((fall - mul_s64(prev[i], MDCT_WINDOW[i])) >> 28);
}

static int32_t fold_current(const int16_t *cur, int32_t i)
{
    const int64_t rise = mul_s64(cur[1023 - i], MDCT_WINDOW[i]);
    return narrow_s32((rise + mul_s64(cur[i], MDCT_WINDOW[1023 - i])) >> 28);
}

// z := (x + jy)(cos + j sin)
static void rotate(int32_t x, int32_t y, const Twiddle &t, int32_t *z)
{
    z[0] = mul_sub_q31(x, t.cos_q31, y, t.sin_q31);
    z[1] = mul_add_q31(y, t.cos_q31, x, t.sin_q31);
}

// The folded sequence is the current frame from i = 511 down, then the previous one from i = 0 up.
// Its points pair an even place from the start with an odd one from the end.
static void fold_and_twiddle(const int16_t *cur, const int16_t *prev, int32_t *z)
{
    Twiddle odd = kPreTwiddle[0];
    Twiddle even = kPreTwiddle[1];
    for (int32_t i = kHalf - 1; i > 0; i -= 4, z += 4) {
        rotate(fold_current(cur, i), fold_previous(prev, i), even, z);
        advance(&odd, even);
        rotate(fold_current(cur, i - 2), fold_previous(prev, i - 2), odd, z + 2);
        advance(&even, odd);
    }
    for (int32_t i = 0; i < kHalf; i += 4, z += 4) {
        rotate(fold_previous(prev, i), fold_current(cur, i), even, z);
        advance(&odd, even);
        rotate(fold_previous(prev, i + 2), fold_current(cur, i + 2), odd, z + 2);
        advance(&even, odd);
    }
}

// Rotates a point at each end, by t and by the next t, conjugated, and unfolds them to lines.
static void unfold(int32_t *low, int32_t *high, const Twiddle &t, const Twiddle &next)
{
    int32_t turned[2];
    rotate(low[0], low[1], t, turned);
    const int32_t high_re = mul_add_q31(high[0], next.cos_q31, high[1], next.sin_q31);
    const int32_t high_im = mul_sub_q31(high[1], next.cos_q31, high[0], next.sin_q31);
    low[0] = turned[0];
    high[1] = sub_s32(0, turned[1]);
    low[1] = high_re;
    high[0] = high_im;
}

static void post_twiddle(int32_t *spec)
{
    Twiddle odd = kPostTwiddle[0];
    Twiddle even = kPostTwiddle[1];
    for (int32_t k = 0; k < kHalf; k += 4) {
        advance(&odd, even);
        unfold(spec + k, spec + 1022 - k, even, odd);
        advance(&even, odd);
        unfold(spec + k + 2, spec + 1020 - k, odd, even);
    }
}

void transform_plain(const int16_t *cur, int32_t *spec, const int16_t *prev)
{
    fold_and_twiddle(cur, prev, spec);
    AACENC_gCmplxFft(spec, kHalf);
    post_twiddle(spec);
}

// A checked build looks at the ranges of the plain version.
static bool takes_vectors()
{
#ifdef TDMBREC_CHECKED
    return false;
#else
    return vector_transform_available();
#endif
}

void buffer2freq(const int16_t *cur, int32_t *spec, const int16_t *prev, uint32_t frameCounter)
{
    if (frameCounter == 0)
        std::fill_n(spec, kFrameLines, 0);
    else if (takes_vectors())
        transform_vector(cur, spec, prev);
    else
        transform_plain(cur, spec, prev);
}

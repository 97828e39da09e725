// The stages of the portable transform, in place on points stored as pairs (real, imaginary).
//
// They are templates for any number type with the helpers of fixed_point.h: the encoder uses 32-bit
// integers, the test of the bounds a type that describes all values of an integer.
#ifndef AACENC_TRANSFORM_STAGES_H
#define AACENC_TRANSFORM_STAGES_H

#include "aacenc/encoder_state.h"
#include "aacenc/filterbank_tables.h"
#include "aacenc/filterbank_twiddles.h"
#include "aacenc/fixed_point.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

// z := (x + jy)(cos + j sin)
template <typename Number>
static void rotate(Number x, Number y, const twiddle &t, Number *z)
{
    z[0] = mul_sub_q31(x, t.cos_q31, y, t.sin_q31);
    z[1] = mul_add_q31(y, t.cos_q31, x, t.sin_q31);
}

// Products of a 16-bit sample and Q29, over 2^28: twice the windowed sample.
// out |u| < 2 * 32768 * sqrt(2) < 2^17
template <typename Number, typename Sample>
static Number fold_previous(const Sample *prev, int32_t i)
{
    return mul_sub_q28(prev[kFrameLines - 1 - i], MDCT_WINDOW[kFrameLines - 1 - i], prev[i],
                       MDCT_WINDOW[i]);
}

template <typename Number, typename Sample>
static Number fold_current(const Sample *cur, int32_t i)
{
    return mul_add_q28(cur[kFrameLines - 1 - i], MDCT_WINDOW[i], cur[i],
                       MDCT_WINDOW[kFrameLines - 1 - i]);
}

// The folded sequence is the current frame from i = 511 down, then the previous one from i = 0 up.
// A point pairs an even place from the start with an odd one from the end.
template <typename Number, typename Sample>
static void fold_and_twiddle(const Sample *cur, const Sample *prev, Number *z)
{
    twiddle odd = kPreTwiddle[0];
    twiddle even = kPreTwiddle[1];
    for (int32_t i = kFftPoints - 1; i > 0; i -= 4, z += 4) {
        rotate(fold_current<Number>(cur, i), fold_previous<Number>(prev, i), even, z);
        advance(&odd, even);
        rotate(fold_current<Number>(cur, i - 2), fold_previous<Number>(prev, i - 2), odd, z + 2);
        advance(&even, odd);
    }
    for (int32_t i = 0; i < kFftPoints; i += 4, z += 4) {
        rotate(fold_previous<Number>(prev, i), fold_current<Number>(cur, i), even, z);
        advance(&odd, even);
        rotate(fold_previous<Number>(prev, i + 2), fold_current<Number>(cur, i + 2), odd, z + 2);
        advance(&even, odd);
    }
}

// The places of two points that bit reversal exchanges.
struct point_swap {
    uint16_t low;
    uint16_t high;
};

inline constexpr auto kSwaps = [] {
    std::array<point_swap, 240> swaps = {}; // the other 32 of the 512 points keep their places
    size_t count = 0;
    for (uint32_t i = 0; i < kFftPoints; i++) {
        uint32_t reversed = 0;
        for (uint32_t bit = 1; bit < kFftPoints; bit *= 2) {
            reversed = reversed * 2 + ((i & bit) != 0);
        }
        if (i < reversed) {
            swaps[count++] = {static_cast<uint16_t>(2 * i), static_cast<uint16_t>(2 * reversed)};
        }
    }
    return swaps;
}();

template <typename Number>
static void reverse_bits(Number *data)
{
    constexpr size_t kPointBytes = 2 * sizeof(Number);
    for (const point_swap &swap : kSwaps) {
        Number point[2];
        std::memcpy(point, data + swap.low, kPointBytes);
        std::memcpy(data + swap.low, data + swap.high, kPointBytes);
        std::memcpy(data + swap.high, point, kPointBytes);
    }
}

// a, b := a + (re, im), a - (re, im)
template <typename Number>
static void butterfly(Number *a, Number *b, Number re, Number im)
{
    b[0] = sub_s32(a[0], re);
    b[1] = sub_s32(a[1], im);
    a[0] = add_s32(a[0], re);
    a[1] = add_s32(a[1], im);
}

// The first two stages of the FFT: twiddles 1 and -j only.
template <typename Number>
static void transform_quads(Number *data, int32_t points)
{
    for (Number *p = data; p != data + 2 * points; p += 8) {
        butterfly(p, p + 2, p[2], p[3]);
        butterfly(p + 4, p + 6, p[6], p[7]);
        butterfly(p, p + 4, p[4], p[5]);
        butterfly(p + 2, p + 6, p[7], negate_s32(p[6]));
    }
}

// The third stage: as AACE_FFT_sInnerLoop_Stg2.
template <typename Number>
static void transform_eights(Number *data, int32_t groups, int32_t c_q31)
{
    for (Number *p = data; p != data + 16 * groups; p += 16) {
        butterfly(p, p + 8, p[8], p[9]);
        const Number sum1 = mul_q31(add_s32(p[11], p[10]), c_q31);
        const Number difference1 = mul_q31(sub_s32(p[11], p[10]), c_q31);
        butterfly(p + 2, p + 10, sum1, difference1);
        butterfly(p + 4, p + 12, p[13], negate_s32(p[12]));
        const Number sum3 = mul_q31(add_s32(p[15], p[14]), c_q31);
        const Number difference3 = mul_q31(sub_s32(p[15], p[14]), c_q31);
        butterfly(p + 6, p + 14, difference3, negate_s32(sum3));
    }
}

// One group of a later stage: as AACE_FFT_sInnerLoop.
template <typename Number>
static Number *transform_group(Number *data, const int32_t *table, int32_t span, int32_t stride)
{
    Number *a = data;
    Number *b = data + 2 * span;
    butterfly(a, b, b[0], b[1]);
    butterfly(a + span, b + span, b[span + 1], negate_s32(b[span]));
    const int32_t *cosine = table;
    const int32_t *sine = table + kQuarterWave;
    for (int32_t k = 1; k < span / 2; k++) {
        cosine += stride;
        sine -= stride;
        a += 2;
        b += 2;
        // W = cos - j sin
        const Number re = mul_add_q31(b[0], *cosine, b[1], *sine);
        const Number im = mul_sub_q31(b[1], *cosine, b[0], *sine);
        butterfly(a, b, re, im);
        // a quarter turn further: -jW
        const Number turned_re = mul_sub_q31(b[span + 1], *cosine, b[span], *sine);
        const Number turned_im = mul_add_q31(b[span], *cosine, b[span + 1], *sine);
        butterfly(a + span, b + span, turned_re, negate_s32(turned_im));
    }
    return data + 4 * span;
}

// Rotates the low point by t and the high one by the conjugate of `next`, and unfolds them to
// lines.
template <typename Number>
static void unfold(Number *low, Number *high, const twiddle &t, const twiddle &next)
{
    Number turned[2];
    rotate(low[0], low[1], t, turned);
    const Number high_re = mul_add_q31(high[0], next.cos_q31, high[1], next.sin_q31);
    const Number high_im = mul_sub_q31(high[1], next.cos_q31, high[0], next.sin_q31);
    low[0] = turned[0];
    high[1] = negate_s32(turned[1]);
    low[1] = high_re;
    high[0] = high_im;
}

template <typename Number>
static void post_twiddle(Number *spec)
{
    twiddle odd = kPostTwiddle[0];
    twiddle even = kPostTwiddle[1];
    for (int32_t k = 0; k < kFftPoints; k += 4) {
        advance(&odd, even);
        unfold(spec + k, spec + kFrameLines - 2 - k, even, odd);
        advance(&even, odd);
        unfold(spec + k + 2, spec + kFrameLines - 4 - k, odd, even);
    }
}

#endif // AACENC_TRANSFORM_STAGES_H

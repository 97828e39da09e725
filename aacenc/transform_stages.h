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

// A point in registers.
template <typename Word>
struct fft_point {
    Word re;
    Word im;
};

template <typename Word>
static fft_point<Word> point_of(const Word &re, const Word &im)
{
    return {re, im};
}

template <typename Number>
static auto load_point(const Number *z)
{
    return fft_point<decltype(negate_s32(*z))>{z[0], z[1]};
}

template <typename Word, typename Number>
static void store_point(const fft_point<Word> &point, Number *z)
{
    z[0] = static_cast<Number>(point.re);
    z[1] = static_cast<Number>(point.im);
}

// returns: (x + jy)(cos + j sin)
template <typename Word>
static fft_point<Word> rotate(const fft_point<Word> &z, const twiddle &t)
{
    return {mul_sub_q31(z.re, t.cos_q31, z.im, t.sin_q31),
            mul_add_q31(z.im, t.cos_q31, z.re, t.sin_q31)};
}

// Products of a 16-bit sample and Q29, over 2^28: twice the windowed sample.
// out |u| < 2 * 32768 * sqrt(2) < 2^17
template <typename Sample>
static auto fold_previous(const Sample *prev, int32_t i)
{
    return mul_sub_q28(prev[kFrameLines - 1 - i], MDCT_WINDOW[kFrameLines - 1 - i], prev[i],
                       MDCT_WINDOW[i]);
}

template <typename Sample>
static auto fold_current(const Sample *cur, int32_t i)
{
    return mul_add_q28(cur[kFrameLines - 1 - i], MDCT_WINDOW[i], cur[i],
                       MDCT_WINDOW[kFrameLines - 1 - i]);
}

// The place of an even-numbered point in the bit-reversed order of 512 points. The point after it
// is half of them further.
inline constexpr auto kReversed = [] {
    std::array<uint16_t, kFftPoints / 2> places = {};
    for (uint32_t i = 0; i < kFftPoints / 2; i++) {
        for (uint32_t bit = 1; bit < kFftPoints / 2; bit *= 2) {
            places[i] = static_cast<uint16_t>(places[i] * 2 + ((i & bit) != 0 ? 1 : 0));
        }
    }
    return places;
}();

// The folded sequence is the current frame from i = 511 down, then the previous one from i = 0 up.
// A point pairs an even place from the start with an odd one from the end.
// out: z: the points, in bit-reversed order
template <typename Number, typename Sample>
static void fold_and_twiddle(const Sample *cur, const Sample *prev, Number *z)
{
    twiddle odd = kPreTwiddle[0];
    twiddle even = kPreTwiddle[1];
    const uint16_t *place = kReversed.data();
    for (int32_t i = kFftPoints - 1; i > 0; i -= 4) {
        Number *point = z + 2 * *place++;
        const auto first = point_of(fold_current(cur, i), fold_previous(prev, i));
        store_point(rotate(first, even), point);
        advance(&odd, even);
        const auto second = point_of(fold_current(cur, i - 2), fold_previous(prev, i - 2));
        store_point(rotate(second, odd), point + kFftPoints);
        advance(&even, odd);
    }
    for (int32_t i = 0; i < kFftPoints; i += 4) {
        Number *point = z + 2 * *place++;
        const auto first = point_of(fold_previous(prev, i), fold_current(cur, i));
        store_point(rotate(first, even), point);
        advance(&odd, even);
        const auto second = point_of(fold_previous(prev, i + 2), fold_current(cur, i + 2));
        store_point(rotate(second, odd), point + kFftPoints);
        advance(&even, odd);
    }
}

// a, b := a + b, a - b; kTurned: with -j b
template <bool kTurned, typename Word>
static void butterfly(fft_point<Word> *a, fft_point<Word> *b)
{
    const fft_point<Word> before = *a;
    const fft_point<Word> turned = kTurned ? fft_point<Word>{b->im, negate_s32(b->re)} : *b;
    *a = {add_s32(before.re, turned.re), add_s32(before.im, turned.im)};
    *b = {sub_s32(before.re, turned.re), sub_s32(before.im, turned.im)};
}

// a, b := a + W b, a - W b, where W is cos - j sin, or -j times that; null: 1. The sums of the high
// halves of products are doubled in the last step.
template <bool kTurned, typename Word>
static void butterfly(fft_point<Word> *a, fft_point<Word> *b, const twiddle *w)
{
    if (w == nullptr) {
        butterfly<kTurned>(a, b);
        return;
    }
    const Word half_re = add_s32(mulhi(b->re, w->cos_q31), mulhi(b->im, w->sin_q31));
    const Word half_im = sub_s32(mulhi(b->im, w->cos_q31), mulhi(b->re, w->sin_q31));
    const auto re = add_sub_twice(a->re, kTurned ? half_im : half_re);
    const auto im = add_sub_twice(a->im, kTurned ? half_re : half_im);
    *a = {re.sum, kTurned ? im.difference : im.sum};
    *b = {re.difference, kTurned ? im.sum : im.difference};
}

// Two stages, of `span` and of twice that, on four points that are `span` apart.
// in: w1: of the first stage; kTurned: to be turned by -j
// in: w2: of the second stage, whose second pair turns it by -j
template <bool kTurned, typename Number>
[[gnu::always_inline]] static inline void combine_four(Number *z, int32_t span, const twiddle *w1,
                                                       const twiddle *w2)
{
    auto z0 = load_point(z);
    auto z1 = load_point(z + 2 * span);
    auto z2 = load_point(z + 4 * span);
    auto z3 = load_point(z + 6 * span);
    butterfly<kTurned>(&z0, &z1, w1);
    butterfly<kTurned>(&z2, &z3, w1);
    butterfly<false>(&z0, &z2, w2);
    butterfly<true>(&z1, &z3, w2);
    store_point(z0, z);
    store_point(z1, z + 2 * span);
    store_point(z2, z + 4 * span);
    store_point(z3, z + 6 * span);
}

// The first two stages of the FFT.
template <typename Number>
static void transform_quads(Number *data, int32_t points)
{
    for (Number *p = data; p != data + 2 * points; p += 8) {
        combine_four<false>(p, 1, nullptr, nullptr);
    }
}

// One butterfly of the third stage.
template <bool kHalfTurned, bool kTurned, typename Number>
[[gnu::always_inline]] static inline void combine_two(Number *z, int32_t c_q31)
{
    auto a = load_point(z);
    auto b = load_point(z + 8);
    if (kHalfTurned) {
        b = {mul_q31(add_s32(b.im, b.re), c_q31), mul_q31(sub_s32(b.im, b.re), c_q31)};
    }
    butterfly<kTurned>(&a, &b);
    store_point(a, z);
    store_point(b, z + 8);
}

// The third stage: as AACE_FFT_sInnerLoop_Stg2.
template <typename Number>
static void transform_eights(Number *data, int32_t groups, int32_t c_q31)
{
    for (Number *p = data; p != data + 16 * groups; p += 16) {
        combine_two<false, false>(p, c_q31);
        combine_two<true, false>(p + 2, c_q31);
        combine_two<false, true>(p + 4, c_q31);
        combine_two<true, true>(p + 6, c_q31);
    }
}

// returns: the factor of an entry of the table, e^(-j 2 pi entry / 1024)
inline twiddle fft_twiddle(int32_t entry)
{
    return {CPLX_COEFF[entry], CPLX_COEFF[kQuarterWave - entry]};
}

// Two of the later stages, of kSpan and of twice that: half of the fours of a group, of which the
// first one does not need w1.
// in: from: entry of the table with the first w2
template <bool kTurned, int32_t kSpan, typename Number>
static void combine_fours(Number *z, int32_t from)
{
    constexpr int32_t kStep = kQuarterWave / kSpan;
    for (int32_t k = 1; k < kSpan / 2; k++) {
        const twiddle w1 = fft_twiddle(2 * k * kStep);
        const twiddle w2 = fft_twiddle(from + k * kStep);
        combine_four<kTurned>(z + 2 * k, kSpan, &w1, &w2);
    }
}

template <int32_t kSpan, typename Number>
static void transform_groups(Number *data, int32_t points)
{
    const twiddle eighth = fft_twiddle(kQuarterWave / 2);
    for (Number *p = data; p != data + 2 * points; p += 8 * kSpan) {
        combine_four<false>(p, kSpan, nullptr, nullptr);
        combine_fours<false, kSpan>(p, 0);
        combine_four<true>(p + kSpan, kSpan, nullptr, &eighth);
        combine_fours<true, kSpan>(p + kSpan, kQuarterWave / 2);
    }
}

// Rotates the low point by t and the high one by the conjugate of `next`, and unfolds them to
// lines.
template <typename Number>
static void unfold(Number *low, Number *high, const twiddle &t, const twiddle &next)
{
    const auto low_point = rotate(load_point(low), t);
    const auto z = load_point(high);
    const auto high_re = mul_add_q31(z.re, next.cos_q31, z.im, next.sin_q31);
    const auto high_im = mul_sub_q31(z.im, next.cos_q31, z.re, next.sin_q31);
    low[0] = static_cast<Number>(low_point.re);
    low[1] = static_cast<Number>(high_re);
    high[0] = static_cast<Number>(high_im);
    high[1] = static_cast<Number>(negate_s32(low_point.im));
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

#include "aacenc/filterbank_vector.h"

#include "aacenc/vector_s32.h"

#include <cstddef>
#include <initializer_list>

#if AACENC_VECTOR

#include "aacenc/encoder_state.h"
#include "aacenc/filterbank_tables.h"
#include "aacenc/filterbank_twiddles.h"

static constexpr int32_t kReversed[8] = {0, 4, 2, 6, 1, 5, 3, 7}; // three bits, read backwards

namespace {

// Real and imaginary parts of the points.
struct split_points {
    alignas(32) int32_t re[kFftPoints];
    alignas(32) int32_t im[kFftPoints];
};

// The points of a vector.
struct vec_points {
    vec_s32 re;
    vec_s32 im;
};

// The lanes of a factor that count as 1, which has no exact Q31 number.
enum class unit_lanes { kNoLane, kFirstLane, kAllLanes };

// Twiddle factors of a stage.
struct factor {
    vec_points value;
    unit_lanes ones;
};

// The recurrence's factors, made at compile time.
template <size_t kCount>
struct twiddle_table {
    int32_t cos_q31[kCount];
    int32_t sin_q31[kCount];
};

} // namespace

template <size_t kCount>
static constexpr twiddle_table<kCount> list_twiddles(const twiddle (&first)[2])
{
    twiddle_table<kCount> table = {};
    twiddle before = first[0];
    twiddle t = first[1];
    for (size_t i = 0; i < kCount; i++) {
        table.cos_q31[i] = narrow_s32(t.cos_q31);
        table.sin_q31[i] = narrow_s32(t.sin_q31);
        advance(&before, t);
        const twiddle next = before;
        before = t;
        t = next;
    }
    return table;
}

static constexpr auto kPreTwiddles = list_twiddles<kFftPoints>(kPreTwiddle);
static constexpr auto kPostTwiddles = list_twiddles<kFftPoints / 2 + 1>(kPostTwiddle);

VECTOR_INLINE vec_points load_points(const split_points *points, int32_t at)
{
    return {load(points->re + at), load(points->im + at)};
}

VECTOR_INLINE void store_points(split_points *points, int32_t at, vec_points z)
{
    store(points->re + at, z.re);
    store(points->im + at, z.im);
}

VECTOR_INLINE vec_points times(vec_points z, vec_points t)
{
    return {mul_sub_q31(z.re, t.re, z.im, t.im), mul_add_q31(z.im, t.re, z.re, t.im)};
}

VECTOR_INLINE vec_points times_conjugate(vec_points z, vec_points t)
{
    return {mul_add_q31(z.re, t.re, z.im, t.im), mul_sub_q31(z.im, t.re, z.re, t.im)};
}

template <size_t kCount>
VECTOR_INLINE vec_points load_factors(const twiddle_table<kCount> &table, int32_t at)
{
    return {load(table.cos_q31 + at), load(table.sin_q31 + at)};
}

// z times sqrt(-j)
VECTOR_INLINE vec_points turn_half(vec_points z)
{
    const vec_s32 c = splat(kSqrtHalf_q31);
    return {mul_q31(add(z.im, z.re), c), mul_q31(sub(z.im, z.re), c)};
}

// a, b := a + b, a - b; kTurned: with -j b
template <bool kTurned>
VECTOR_INLINE void butterfly(vec_points *a, vec_points *b)
{
    const vec_points before = *a;
    const vec_s32 re = kTurned ? b->im : b->re;
    const vec_s32 im = kTurned ? b->re : b->im;
    const vec_s32 sum = add(before.im, im);
    const vec_s32 difference = sub(before.im, im);
    *a = {add(before.re, re), kTurned ? difference : sum};
    *b = {sub(before.re, re), kTurned ? sum : difference};
}

// z times the conjugate of w
VECTOR_INLINE vec_points times_factor(vec_points z, const factor &w)
{
    if (w.ones == unit_lanes::kAllLanes) {
        return z;
    }
    const vec_points product = times_conjugate(z, w.value);
    if (w.ones == unit_lanes::kFirstLane) {
        return {with_first(product.re, z.re), with_first(product.im, z.im)};
    }
    return product;
}

// Two stages, of `span` and of twice that, on the four vectors from `at` on that are `span` apart.
// in: w1: of the first stage; kTurned: to be turned by -j
// in: w2: of the second stage, whose second pair turns it by -j
template <bool kTurned>
[[gnu::always_inline]] VECTOR_INLINE void
combine_four(split_points *points, int32_t at, int32_t span, const factor &w1, const factor &w2)
{
    vec_points z0 = load_points(points, at);
    vec_points z1 = times_factor(load_points(points, at + span), w1);
    butterfly<kTurned>(&z0, &z1);
    vec_points z2 = load_points(points, at + 2 * span);
    vec_points z3 = times_factor(load_points(points, at + 3 * span), w1);
    butterfly<kTurned>(&z2, &z3);
    z2 = times_factor(z2, w2);
    butterfly<false>(&z0, &z2);
    z3 = times_factor(z3, w2);
    butterfly<true>(&z1, &z3);
    store_points(points, at, z0);
    store_points(points, at + span, z1);
    store_points(points, at + 2 * span, z2);
    store_points(points, at + 3 * span, z3);
}

// Two vectors of numbers before `end`, the last one first.
template <typename Number>
VECTOR_INLINE even_odd load_backwards(const Number *end)
{
    const even_odd numbers = load_even_odd(end - 2 * kLanes);
    return {reverse(numbers.odd), reverse(numbers.even)};
}

// The points are kept in eight rows of 64, with the eight columns of a row in bit-reversed order,
// so that the first five stages of the FFT combine whole vectors, each with one twiddle factor.
// returns: the place of a point
static int32_t place_in_rows(int32_t point)
{
    return (point & ~63) + 8 * kReversed[(point >> 3) & 7] + (point & 7);
}

// A turn folds two vectors: the odd places make points of the first half, the even ones of the
// second.
VECTOR_CODE static void fold_and_twiddle(const int16_t *cur, const int16_t *prev,
                                         split_points *points)
{
    for (int32_t i = 0; i < kFftPoints; i += 2 * kLanes) {
        const even_odd rise = load_even_odd(MDCT_WINDOW + i);
        const even_odd fall = load_backwards(MDCT_WINDOW + kFrameLines - i);
        const even_odd start = load_even_odd(prev + i);
        const even_odd end = load_backwards(prev + kFrameLines - i);
        const even_odd previous = {
            mul_add_q28(end.even, fall.even, sub(splat(0), start.even), rise.even),
            mul_add_q28(end.odd, fall.odd, sub(splat(0), start.odd), rise.odd)};
        const even_odd cur_start = load_even_odd(cur + i);
        const even_odd cur_end = load_backwards(cur + kFrameLines - i);
        const even_odd current = {mul_add_q28(cur_end.even, rise.even, cur_start.even, fall.even),
                                  mul_add_q28(cur_end.odd, rise.odd, cur_start.odd, fall.odd)};

        const int32_t first = kFftPoints / 2 - kLanes - i / 2;
        const int32_t second = kFftPoints / 2 + i / 2;
        const vec_points in_first = {reverse(current.odd), reverse(previous.odd)};
        const vec_points in_second = {previous.even, current.even};
        const int32_t place = place_in_rows(second);
        // The bits of a block's number are the inverse of those of its mirror image.
        store_points(points, kFftPoints - kLanes - place,
                     times(in_first, load_factors(kPreTwiddles, first)));
        store_points(points, place, times(in_second, load_factors(kPreTwiddles, second)));
    }
}

// The first three stages. Afterwards row t holds the points that are t modulo 8 in the bit-reversed
// order.
VECTOR_CODE static void combine_rows(split_points *points)
{
    for (int32_t column = 0; column < 64; column += kLanes) {
        vec_points z[8];
        for (int32_t t = 0; t < 8; t++) {
            z[t] = load_points(points, 64 * kReversed[t] + column);
        }
        for (int32_t t = 0; t < 8; t += 4) {
            butterfly<false>(&z[t], &z[t + 1]);
            butterfly<false>(&z[t + 2], &z[t + 3]);
            butterfly<false>(&z[t], &z[t + 2]);
            butterfly<true>(&z[t + 1], &z[t + 3]);
        }
        z[5] = turn_half(z[5]);
        z[7] = turn_half(z[7]);
        butterfly<false>(&z[0], &z[4]);
        butterfly<false>(&z[1], &z[5]);
        butterfly<true>(&z[2], &z[6]);
        butterfly<true>(&z[3], &z[7]);
        for (int32_t t = 0; t < 8; t++) {
            store_points(points, 64 * t + column, z[t]);
        }
    }
}

// returns: an entry of the table in all lanes
VECTOR_INLINE factor splat_factor(int32_t entry)
{
    return {{splat(CPLX_COEFF[entry]), splat(CPLX_COEFF[kQuarterWave - entry])},
            entry == 0 ? unit_lanes::kAllLanes : unit_lanes::kNoLane};
}

// Stages 4 and 5, of spans 8 and 16, within half of the rows.
template <bool kTurned>
VECTOR_INLINE void combine_columns(split_points *points)
{
    for (int32_t t = 0; t < 4; t++) {
        const int32_t row = kTurned ? t + 4 : t;
        const factor w1 = splat_factor(t * (kFftPoints / 8));
        const factor w2 = splat_factor(row * (kFftPoints / 16));
        for (int32_t column = 0; column < 8; column += kLanes) {
            combine_four<kTurned>(points, 64 * row + column, 8, w1, w2);
            combine_four<kTurned>(points, 64 * row + column + 32, 8, w1, w2);
        }
    }
}

// Moves the points from the rows to the bit-reversed order.
VECTOR_CODE static void leave_rows(int32_t *parts)
{
    for (int32_t column = 0; column < 64; column += 8) {
        vec_s32 blocks[8 / kLanes][8]; // of a block: the rows, kLanes of their columns
        for (int32_t i = 0; i < 8; i++) {
            for (int32_t block = 0; block < 8 / kLanes; block++) {
                blocks[block][i] = load(parts + 64 * i + column + kLanes * block);
            }
        }
        for (int32_t block = 0; block < 8 / kLanes; block++) {
            for (int32_t row = 0; row < 8; row += kLanes) {
                transpose(blocks[block] + row);
                for (int32_t i = 0; i < kLanes; i++) {
                    store(parts + 64 * kReversed[kLanes * block + i] + column + row,
                          blocks[block][row + i]);
                }
            }
        }
    }
}

// returns: entries of a table that begin with entry k of a quarter wave of `quarter` steps
VECTOR_INLINE factor load_factor(const int32_t *cosine, int32_t quarter, int32_t k)
{
    return {{load(cosine + k), reverse(load(cosine + quarter - k - (kLanes - 1)))},
            k == 0 ? unit_lanes::kFirstLane : unit_lanes::kNoLane};
}

// Half of the fours of two stages, of `span` and of twice that.
// in: cosine1, cosine2: of the twiddles of the stages, span / 2 + 1 and span + 1 entries
template <bool kTurned>
VECTOR_INLINE void combine_fours(split_points *points, int32_t span, const int32_t *cosine1,
                                 const int32_t *cosine2)
{
    const int32_t half = kTurned ? span / 2 : 0;
    for (int32_t k = 0; k < span / 2; k += kLanes) {
        const factor w1 = load_factor(cosine1, span / 2, k);
        const factor w2 = load_factor(cosine2, span, half + k);
        for (int32_t at = half + k; at < kFftPoints; at += 4 * span) {
            combine_four<kTurned>(points, at, span, w1, w2);
        }
    }
}

VECTOR_CODE static void combine_groups(split_points *points, int32_t span, const int32_t *cosine1,
                                       const int32_t *cosine2)
{
    combine_fours<false>(points, span, cosine1, cosine2);
    combine_fours<true>(points, span, cosine1, cosine2);
}

VECTOR_CODE static void post_twiddle(const split_points *points, int32_t *spec)
{
    for (int32_t k = 0; k < kFftPoints / 2; k += kLanes) {
        const vec_points low = times(load_points(points, k), load_factors(kPostTwiddles, k));
        const vec_points last = load_points(points, kFftPoints - kLanes - k);
        const vec_points high = times_conjugate({reverse(last.re), reverse(last.im)},
                                                load_factors(kPostTwiddles, k + 1));
        store_even_odd(spec + 2 * k, low.re, high.re);
        store_even_odd(spec + kFrameLines - 2 * kLanes - 2 * k, reverse(high.im),
                       reverse(sub(splat(0), low.im)));
    }
}

bool vector_transform_available()
{
    return vectors_available();
}

VECTOR_CODE void transform_vector(const int16_t *cur, int32_t *spec, const int16_t *prev)
{
    split_points points;
    fold_and_twiddle(cur, prev, &points);
    combine_rows(&points);
    combine_columns<false>(&points);
    combine_columns<true>(&points);
    leave_rows(points.re);
    leave_rows(points.im);
    combine_groups(&points, 32, CPLX_COEFF_16TH, CPLX_COEFF_8TH);
    combine_groups(&points, 128, CPLX_COEFF_4TH, CPLX_COEFF_2ND);
    post_twiddle(&points, spec);
}

#else

bool vector_transform_available()
{
    return false;
}

void transform_vector(const int16_t *, int32_t *, const int16_t *)
{
}

#endif

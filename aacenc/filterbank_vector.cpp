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

// Eight points.
struct vec_points {
    vec_s32 re;
    vec_s32 im;
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

// z times -j
VECTOR_INLINE vec_points turn(vec_points z)
{
    return {z.im, sub(splat(0), z.re)};
}

// z times sqrt(-j)
VECTOR_INLINE vec_points turn_half(vec_points z)
{
    const vec_s32 c = splat(kSqrtHalf_q31);
    return {mul_q31(add(z.im, z.re), c), mul_q31(sub(z.im, z.re), c)};
}

VECTOR_INLINE void butterfly(vec_points *a, vec_points *b, vec_points z)
{
    *b = {sub(a->re, z.re), sub(a->im, z.im)};
    *a = {add(a->re, z.re), add(a->im, z.im)};
}

VECTOR_INLINE void butterfly_in_place(split_points *points, int32_t a_at, int32_t b_at,
                                      vec_points z)
{
    vec_points a = load_points(points, a_at);
    vec_points b;
    butterfly(&a, &b, z);
    store_points(points, a_at, a);
    store_points(points, b_at, b);
}

// The sixteen numbers before `end`, the last one first.
template <typename Number>
VECTOR_INLINE even_odd load_backwards(const Number *end)
{
    const even_odd numbers = load_even_odd(end - 16);
    return {reverse(numbers.odd), reverse(numbers.even)};
}

// The points are kept in eight rows of 64, with the eight columns of a row in bit-reversed order,
// so that the first six stages of the FFT combine whole vectors, each with one twiddle factor.
// returns: the place of a point
static int32_t place_in_rows(int32_t point)
{
    return (point & ~63) + 8 * kReversed[(point >> 3) & 7];
}

// A turn folds 16 places: the odd ones make points of the first half, the even ones of the second.
VECTOR_CODE static void fold_and_twiddle(const int16_t *cur, const int16_t *prev,
                                         split_points *points)
{
    for (int32_t i = 0; i < kFftPoints; i += 16) {
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

        const int32_t first = kFftPoints / 2 - 8 - i / 2;
        const int32_t second = kFftPoints / 2 + i / 2;
        const vec_points in_first = {reverse(current.odd), reverse(previous.odd)};
        const vec_points in_second = {previous.even, current.even};
        store_points(points, place_in_rows(first),
                     times(in_first, load_factors(kPreTwiddles, first)));
        store_points(points, place_in_rows(second),
                     times(in_second, load_factors(kPreTwiddles, second)));
    }
}

// The first three stages. Afterwards row t holds the points that are t modulo 8 in the bit-reversed
// order.
VECTOR_CODE static void combine_rows(split_points *points)
{
    for (int32_t column = 0; column < 64; column += 8) {
        vec_points z[8];
        for (int32_t t = 0; t < 8; t++) {
            z[t] = load_points(points, 64 * kReversed[t] + column);
        }
        for (int32_t t = 0; t < 8; t += 2) {
            butterfly(&z[t], &z[t + 1], z[t + 1]);
        }
        for (int32_t t = 0; t < 8; t += 4) {
            butterfly(&z[t], &z[t + 2], z[t + 2]);
            butterfly(&z[t + 1], &z[t + 3], turn(z[t + 3]));
        }
        butterfly(&z[0], &z[4], z[4]);
        butterfly(&z[1], &z[5], turn_half(z[5]));
        butterfly(&z[2], &z[6], turn(z[6]));
        butterfly(&z[3], &z[7], turn(turn_half(z[7])));
        for (int32_t t = 0; t < 8; t++) {
            store_points(points, 64 * t + column, z[t]);
        }
    }
}

// A stage of span 8, 16 or 32, within the rows.
VECTOR_CODE static void combine_columns(split_points *points, int32_t span)
{
    for (int32_t k = 0; k < span / 2; k++) {
        const int32_t entry = k * (kFftPoints / span);
        const vec_points w = {splat(CPLX_COEFF[entry]), splat(CPLX_COEFF[kQuarterWave - entry])};
        for (const int32_t at : {k, k + span / 2}) {
            for (int32_t column = at & ~7; column < 64; column += 2 * span) {
                const int32_t a = 64 * (at & 7) + column;
                vec_points z = load_points(points, a + span);
                if (k != 0) {
                    z = times_conjugate(z, w);
                }
                butterfly_in_place(points, a, a + span, at == k ? z : turn(z));
            }
        }
    }
}

// Moves the points from the rows to the bit-reversed order.
VECTOR_CODE static void leave_rows(int32_t *parts)
{
    for (int32_t column = 0; column < 64; column += 8) {
        vec_s32 rows[8];
        for (int32_t i = 0; i < 8; i++) {
            rows[i] = load(parts + 64 * i + column);
        }
        transpose(rows);
        for (int32_t i = 0; i < 8; i++) {
            store(parts + 64 * kReversed[i] + column, rows[i]);
        }
    }
}

// A stage of span 64, 128 or 256.
// in: cosine: of its twiddles, span / 2 + 1 entries
VECTOR_CODE static void combine_groups(split_points *points, int32_t span, const int32_t *cosine)
{
    for (int32_t k = 0; k < span / 2; k += 8) {
        const vec_points w = {load(cosine + k), reverse(load(cosine + span / 2 - 7 - k))};
        for (int32_t a = k; a < kFftPoints; a += 2 * span) {
            for (const int32_t at : {a, a + span / 2}) {
                const vec_points z = load_points(points, at + span);
                vec_points turned = times_conjugate(z, w);
                if (k == 0) { // its first factor is 1
                    turned = {with_first(turned.re, z.re), with_first(turned.im, z.im)};
                }
                butterfly_in_place(points, at, at + span, at == a ? turned : turn(turned));
            }
        }
    }
}

VECTOR_CODE static void post_twiddle(const split_points *points, int32_t *spec)
{
    for (int32_t k = 0; k < kFftPoints / 2; k += 8) {
        const vec_points low = times(load_points(points, k), load_factors(kPostTwiddles, k));
        const vec_points last = load_points(points, kFftPoints - 8 - k);
        const vec_points high = times_conjugate({reverse(last.re), reverse(last.im)},
                                                load_factors(kPostTwiddles, k + 1));
        store_even_odd(spec + 2 * k, low.re, high.re);
        store_even_odd(spec + kFrameLines - 16 - 2 * k, reverse(high.im),
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
    combine_columns(&points, 8);
    combine_columns(&points, 16);
    combine_columns(&points, 32);
    leave_rows(points.re);
    leave_rows(points.im);
    combine_groups(&points, 64, CPLX_COEFF_8TH);
    combine_groups(&points, 128, CPLX_COEFF_4TH);
    combine_groups(&points, 256, CPLX_COEFF_2ND);
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

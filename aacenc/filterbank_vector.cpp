#include "aacenc/filterbank_vector.h"

#include "aacenc/vector_s32.h"

#include <cstddef>
#include <initializer_list>

#if AACENC_VECTOR

#include "aacenc/filterbank_tables.h"
#include "aacenc/filterbank_twiddles.h"

static constexpr int32_t kPoints = 512;
static constexpr int32_t kSqrtHalf_q31 = 1518500224;
static constexpr int32_t kReversed[8] = {0, 4, 2, 6, 1, 5, 3, 7}; // three bits, read backwards

// Real and imaginary parts of the points.
struct Points {
    alignas(32) int32_t re[kPoints];
    alignas(32) int32_t im[kPoints];
};

// Eight points.
struct Vec2 {
    Vec re;
    Vec im;
};

// The recurrence's factors, made at compile time.
template <size_t kCount>
struct TwiddleTable {
    int32_t cos_q31[kCount];
    int32_t sin_q31[kCount];
};

template <size_t kCount>
static constexpr TwiddleTable<kCount> list_twiddles(const Twiddle (&first)[2])
{
    TwiddleTable<kCount> table = {};
    Twiddle before = first[0];
    Twiddle t = first[1];
    for (size_t i = 0; i < kCount; i++) {
        table.cos_q31[i] = t.cos_q31;
        table.sin_q31[i] = t.sin_q31;
        advance(&before, t);
        const Twiddle next = before;
        before = t;
        t = next;
    }
    return table;
}

static constexpr auto kPreTwiddles = list_twiddles<kPoints>(kPreTwiddle);
static constexpr auto kPostTwiddles = list_twiddles<kPoints / 2 + 1>(kPostTwiddle);

VECTOR_INLINE Vec2 load_points(const Points *points, int32_t at)
{
    return {load(points->re + at), load(points->im + at)};
}

VECTOR_INLINE void store_points(Points *points, int32_t at, Vec2 z)
{
    store(points->re + at, z.re);
    store(points->im + at, z.im);
}

VECTOR_INLINE Vec2 times(Vec2 z, Vec2 t)
{
    return {mul_sub_q31(z.re, t.re, z.im, t.im), mul_add_q31(z.im, t.re, z.re, t.im)};
}

VECTOR_INLINE Vec2 times_conjugate(Vec2 z, Vec2 t)
{
    return {mul_add_q31(z.re, t.re, z.im, t.im), mul_sub_q31(z.im, t.re, z.re, t.im)};
}

template <size_t kCount>
VECTOR_INLINE Vec2 load_factors(const TwiddleTable<kCount> &table, int32_t at)
{
    return {load(table.cos_q31 + at), load(table.sin_q31 + at)};
}

// z times -j
VECTOR_INLINE Vec2 turn(Vec2 z)
{
    return {z.im, sub(splat(0), z.re)};
}

// z times sqrt(-j)
VECTOR_INLINE Vec2 turn_half(Vec2 z)
{
    const Vec c = splat(kSqrtHalf_q31);
    return {mul_q31(add(z.im, z.re), c), mul_q31(sub(z.im, z.re), c)};
}

VECTOR_INLINE void butterfly(Vec2 *a, Vec2 *b, Vec2 z)
{
    *b = {sub(a->re, z.re), sub(a->im, z.im)};
    *a = {add(a->re, z.re), add(a->im, z.im)};
}

VECTOR_INLINE void butterfly_in_place(Points *points, int32_t a_at, int32_t b_at, Vec2 z)
{
    Vec2 a = load_points(points, a_at);
    Vec2 b;
    butterfly(&a, &b, z);
    store_points(points, a_at, a);
    store_points(points, b_at, b);
}

// Sixteen numbers that end before `end`, the last one first.
template <typename Number>
VECTOR_INLINE EvenOdd load_backwards(const Number *end)
{
    const EvenOdd numbers = load_even_odd(end - 16);
    return {reverse(numbers.odd), reverse(numbers.even)};
}

// The points lie in eight rows of 64, with the eight columns of a row in reversed order: so the
// first six stages of the FFT combine whole vectors, each with one twiddle factor.
static int32_t place_in_rows(int32_t point)
{
    return (point & ~63) + 8 * kReversed[(point >> 3) & 7];
}

// For i and 15 that follow it; the odd ones make points of the first half, the even ones of the
// second.
VECTOR_CODE static void fold_and_twiddle(const int16_t *cur, const int16_t *prev, Points *points)
{
    for (int32_t i = 0; i < kPoints; i += 16) {
        const EvenOdd rise = load_even_odd(MDCT_WINDOW + i);
        const EvenOdd fall = load_backwards(MDCT_WINDOW + 1024 - i);
        const EvenOdd start = load_even_odd(prev + i);
        const EvenOdd end = load_backwards(prev + 1024 - i);
        const EvenOdd previous = {
            mul_add_q28(end.even, fall.even, sub(splat(0), start.even), rise.even),
            mul_add_q28(end.odd, fall.odd, sub(splat(0), start.odd), rise.odd)};
        const EvenOdd cur_start = load_even_odd(cur + i);
        const EvenOdd cur_end = load_backwards(cur + 1024 - i);
        const EvenOdd current = {mul_add_q28(cur_end.even, rise.even, cur_start.even, fall.even),
                                 mul_add_q28(cur_end.odd, rise.odd, cur_start.odd, fall.odd)};

        const int32_t first = kPoints / 2 - 8 - i / 2;
        const int32_t second = kPoints / 2 + i / 2;
        const Vec2 in_first = {reverse(current.odd), reverse(previous.odd)};
        const Vec2 in_second = {previous.even, current.even};
        store_points(points, place_in_rows(first),
                     times(in_first, load_factors(kPreTwiddles, first)));
        store_points(points, place_in_rows(second),
                     times(in_second, load_factors(kPreTwiddles, second)));
    }
}

// The first three stages, on eight points of every row. Afterwards row t holds the points that are
// t modulo 8 in the bit-reversed order.
VECTOR_CODE static void combine_rows(Points *points)
{
    for (int32_t column = 0; column < 64; column += 8) {
        Vec2 z[8];
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
VECTOR_CODE static void combine_columns(Points *points, int32_t span)
{
    for (int32_t k = 0; k < span / 2; k++) {
        const int32_t entry = k * (kPoints / span);
        const Vec2 w = {splat(CPLX_COEFF[entry]), splat(CPLX_COEFF[256 - entry])};
        for (const int32_t at : {k, k + span / 2}) {
            for (int32_t column = at & ~7; column < 64; column += 2 * span) {
                const int32_t a = 64 * (at & 7) + column;
                Vec2 z = load_points(points, a + span);
                if (k != 0) {
                    z = times_conjugate(z, w);
                }
                butterfly_in_place(points, a, a + span, at == k ? z : turn(z));
            }
        }
    }
}

// Out of the rows into the bit-reversed order.
VECTOR_CODE static void leave_rows(int32_t *parts)
{
    for (int32_t column = 0; column < 64; column += 8) {
        Vec rows[8];
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
// in:      cosine  of its twiddles: span / 2 + 1 entries
VECTOR_CODE static void combine_groups(Points *points, int32_t span, const int32_t *cosine)
{
    for (int32_t k = 0; k < span / 2; k += 8) {
        const Vec2 w = {load(cosine + k), reverse(load(cosine + span / 2 - 7 - k))};
        for (int32_t a = k; a < kPoints; a += 2 * span) {
            for (const int32_t at : {a, a + span / 2}) {
                const Vec2 z = load_points(points, at + span);
                Vec2 turned = times_conjugate(z, w);
                if (k == 0) { // its first factor is 1
                    turned = {with_first(turned.re, z.re), with_first(turned.im, z.im)};
                }
                butterfly_in_place(points, at, at + span, at == a ? turned : turn(turned));
            }
        }
    }
}

VECTOR_CODE static void post_twiddle(const Points *points, int32_t *spec)
{
    for (int32_t k = 0; k < kPoints / 2; k += 8) {
        const Vec2 low = times(load_points(points, k), load_factors(kPostTwiddles, k));
        const Vec2 last = load_points(points, kPoints - 8 - k);
        const Vec2 high = times_conjugate({reverse(last.re), reverse(last.im)},
                                          load_factors(kPostTwiddles, k + 1));
        store_even_odd(spec + 2 * k, low.re, high.re);
        store_even_odd(spec + 1008 - 2 * k, reverse(high.im), reverse(sub(splat(0), low.im)));
    }
}

bool vector_transform_available()
{
    return vectors_available();
}

VECTOR_CODE void transform_vector(const int16_t *cur, int32_t *spec, const int16_t *prev)
{
    Points points;
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

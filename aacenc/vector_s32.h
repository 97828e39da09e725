// Vectors of eight 32-bit integers: AVX2 on x86, checked at run time, and NEON on ARM, chosen by
// the build. AACENC_VECTOR is 0 where there are none.
#ifndef AACENC_VECTOR_S32_H
#define AACENC_VECTOR_S32_H

#include <cstdint>

#if defined(AACENC_PLAIN)
#define AACENC_VECTOR 0
#elif defined(__x86_64__) || defined(__i386__)
#define AACENC_VECTOR 1
#include <immintrin.h>

// Marks a function that works on vectors.
#define VECTOR_CODE __attribute__((target("avx2")))
#define VECTOR_INLINE VECTOR_CODE static inline

using vec_s32 = __m256i;

// Eight numbers at even places and eight at odd places.
struct even_odd {
    vec_s32 even;
    vec_s32 odd;
};

static inline bool vectors_available()
{
    return __builtin_cpu_supports("avx2");
}

VECTOR_INLINE vec_s32 load(const int32_t *from)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i_u *>(from));
}

VECTOR_INLINE void store(int32_t *to, vec_s32 v)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i_u *>(to), v);
}

VECTOR_INLINE vec_s32 splat(int32_t value)
{
    return _mm256_set1_epi32(value);
}

VECTOR_INLINE vec_s32 add(vec_s32 a, vec_s32 b)
{
    return _mm256_add_epi32(a, b);
}

VECTOR_INLINE vec_s32 sub(vec_s32 a, vec_s32 b)
{
    return _mm256_sub_epi32(a, b);
}

// Moves the odd lanes to the even ones, which the multiplication reads.
VECTOR_INLINE vec_s32 odd_lanes(vec_s32 v)
{
    return _mm256_srli_epi64(v, 32);
}

// Twice the upper halves of eight 64-bit products.
VECTOR_INLINE vec_s32 twice_high(vec_s32 even, vec_s32 odd)
{
    const vec_s32 high = _mm256_blend_epi32(odd_lanes(even), odd, 0xAA);
    return add(high, high);
}

// As the functions of fixed_point.h: the upper halves are added without a carry from the lower
// ones.
VECTOR_INLINE vec_s32 mul_q31(vec_s32 a, vec_s32 c)
{
    return twice_high(_mm256_mul_epi32(a, c), _mm256_mul_epi32(odd_lanes(a), odd_lanes(c)));
}

VECTOR_INLINE vec_s32 mul_add_q31(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    const vec_s32 even = add(_mm256_mul_epi32(a, c), _mm256_mul_epi32(b, d));
    const vec_s32 odd = add(_mm256_mul_epi32(odd_lanes(a), odd_lanes(c)),
                            _mm256_mul_epi32(odd_lanes(b), odd_lanes(d)));
    return twice_high(even, odd);
}

VECTOR_INLINE vec_s32 mul_sub_q31(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    const vec_s32 even = sub(_mm256_mul_epi32(a, c), _mm256_mul_epi32(b, d));
    const vec_s32 odd = sub(_mm256_mul_epi32(odd_lanes(a), odd_lanes(c)),
                            _mm256_mul_epi32(odd_lanes(b), odd_lanes(d)));
    return twice_high(even, odd);
}

// (a * c + b * d) >> 28; fits in 32 bits
VECTOR_INLINE vec_s32 mul_add_q28(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    const vec_s32 even = _mm256_add_epi64(_mm256_mul_epi32(a, c), _mm256_mul_epi32(b, d));
    const vec_s32 odd = _mm256_add_epi64(_mm256_mul_epi32(odd_lanes(a), odd_lanes(c)),
                                         _mm256_mul_epi32(odd_lanes(b), odd_lanes(d)));
    return _mm256_blend_epi32(_mm256_srli_epi64(even, 28), _mm256_slli_epi64(odd, 4), 0xAA);
}

VECTOR_INLINE vec_s32 reverse(vec_s32 v)
{
    return _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
}

// v with its first lane from `other`
VECTOR_INLINE vec_s32 with_first(vec_s32 v, vec_s32 other)
{
    return _mm256_blend_epi32(v, other, 1);
}

// Splits 16 samples in memory.
VECTOR_INLINE even_odd load_even_odd(const int16_t *from)
{
    const vec_s32 pairs = _mm256_loadu_si256(reinterpret_cast<const __m256i_u *>(from));
    return {_mm256_srai_epi32(_mm256_slli_epi32(pairs, 16), 16), _mm256_srai_epi32(pairs, 16)};
}

// Splits 16 integers in memory.
VECTOR_INLINE even_odd load_even_odd(const int32_t *from)
{
    const __m256 low = _mm256_castsi256_ps(load(from));
    const __m256 high = _mm256_castsi256_ps(load(from + 8));
    const vec_s32 even = _mm256_castps_si256(_mm256_shuffle_ps(low, high, 0x88));
    const vec_s32 odd = _mm256_castps_si256(_mm256_shuffle_ps(low, high, 0xDD));
    return {_mm256_permute4x64_epi64(even, 0xD8), _mm256_permute4x64_epi64(odd, 0xD8)};
}

VECTOR_INLINE void store_even_odd(int32_t *to, vec_s32 even, vec_s32 odd)
{
    const vec_s32 low = _mm256_unpacklo_epi32(even, odd);
    const vec_s32 high = _mm256_unpackhi_epi32(even, odd);
    store(to, _mm256_permute2x128_si256(low, high, 0x20));
    store(to + 8, _mm256_permute2x128_si256(low, high, 0x31));
}

// Turns eight rows into columns.
VECTOR_INLINE void transpose(vec_s32 *rows)
{
    vec_s32 pairs[8];
    vec_s32 quads[8];
    for (int32_t i = 0; i < 8; i += 2) {
        pairs[i] = _mm256_unpacklo_epi32(rows[i], rows[i + 1]);
        pairs[i + 1] = _mm256_unpackhi_epi32(rows[i], rows[i + 1]);
    }
    for (int32_t i = 0; i < 8; i += 4) {
        quads[i] = _mm256_unpacklo_epi64(pairs[i], pairs[i + 2]);
        quads[i + 1] = _mm256_unpackhi_epi64(pairs[i], pairs[i + 2]);
        quads[i + 2] = _mm256_unpacklo_epi64(pairs[i + 1], pairs[i + 3]);
        quads[i + 3] = _mm256_unpackhi_epi64(pairs[i + 1], pairs[i + 3]);
    }
    for (int32_t i = 0; i < 4; i++) {
        rows[i] = _mm256_permute2x128_si256(quads[i], quads[i + 4], 0x20);
        rows[i + 4] = _mm256_permute2x128_si256(quads[i], quads[i + 4], 0x31);
    }
}

#elif defined(__ARM_NEON)
#define AACENC_VECTOR 1
#include <arm_neon.h>

#define VECTOR_CODE
#define VECTOR_INLINE static inline

struct vec_s32 {
    int32x4_t low;
    int32x4_t high;
};

// Eight numbers at even places and eight at odd places.
struct even_odd {
    vec_s32 even;
    vec_s32 odd;
};

static inline bool vectors_available()
{
    return true;
}

static inline vec_s32 load(const int32_t *from)
{
    return {vld1q_s32(from), vld1q_s32(from + 4)};
}

static inline void store(int32_t *to, vec_s32 v)
{
    vst1q_s32(to, v.low);
    vst1q_s32(to + 4, v.high);
}

static inline vec_s32 splat(int32_t value)
{
    return {vdupq_n_s32(value), vdupq_n_s32(value)};
}

static inline vec_s32 add(vec_s32 a, vec_s32 b)
{
    return {vaddq_s32(a.low, b.low), vaddq_s32(a.high, b.high)};
}

static inline vec_s32 sub(vec_s32 a, vec_s32 b)
{
    return {vsubq_s32(a.low, b.low), vsubq_s32(a.high, b.high)};
}

// As the functions of fixed_point.h, which clear the lowest bit of the product.
static inline vec_s32 mul_q31(vec_s32 a, vec_s32 c)
{
    const int32x4_t even = vdupq_n_s32(-2);
    return {vandq_s32(vqdmulhq_s32(a.low, c.low), even),
            vandq_s32(vqdmulhq_s32(a.high, c.high), even)};
}

static inline vec_s32 mul_add_q31(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    return add(mul_q31(a, c), mul_q31(b, d));
}

static inline vec_s32 mul_sub_q31(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    return sub(mul_q31(a, c), mul_q31(b, d));
}

// (a * c + b * d) >> 28; fits in 32 bits
static inline int32x4_t mul_add_q28(int32x4_t a, int32x4_t c, int32x4_t b, int32x4_t d)
{
    const int64x2_t low =
        vmlal_s32(vmull_s32(vget_low_s32(a), vget_low_s32(c)), vget_low_s32(b), vget_low_s32(d));
    const int64x2_t high = vmlal_s32(vmull_s32(vget_high_s32(a), vget_high_s32(c)),
                                     vget_high_s32(b), vget_high_s32(d));
    return vcombine_s32(vshrn_n_s64(low, 28), vshrn_n_s64(high, 28));
}

static inline vec_s32 mul_add_q28(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    return {mul_add_q28(a.low, c.low, b.low, d.low), mul_add_q28(a.high, c.high, b.high, d.high)};
}

static inline int32x4_t reverse(int32x4_t v)
{
    const int32x4_t pairs = vrev64q_s32(v);
    return vcombine_s32(vget_high_s32(pairs), vget_low_s32(pairs));
}

static inline vec_s32 reverse(vec_s32 v)
{
    return {reverse(v.high), reverse(v.low)};
}

// v with its first lane from `other`
static inline vec_s32 with_first(vec_s32 v, vec_s32 other)
{
    return {vsetq_lane_s32(vgetq_lane_s32(other.low, 0), v.low, 0), v.high};
}

// Splits 16 samples in memory.
static inline even_odd load_even_odd(const int16_t *from)
{
    const int16x8x2_t pairs = vld2q_s16(from);
    return {{vmovl_s16(vget_low_s16(pairs.val[0])), vmovl_s16(vget_high_s16(pairs.val[0]))},
            {vmovl_s16(vget_low_s16(pairs.val[1])), vmovl_s16(vget_high_s16(pairs.val[1]))}};
}

// Splits 16 integers in memory.
static inline even_odd load_even_odd(const int32_t *from)
{
    const int32x4x2_t low = vld2q_s32(from);
    const int32x4x2_t high = vld2q_s32(from + 8);
    return {{low.val[0], high.val[0]}, {low.val[1], high.val[1]}};
}

static inline void store_even_odd(int32_t *to, vec_s32 even, vec_s32 odd)
{
    const int32x4x2_t low = {{even.low, odd.low}};
    const int32x4x2_t high = {{even.high, odd.high}};
    vst2q_s32(to, low);
    vst2q_s32(to + 8, high);
}

// Turns four rows into columns.
static inline void transpose(int32x4_t *a, int32x4_t *b, int32x4_t *c, int32x4_t *d)
{
    const int32x4x2_t ab = vtrnq_s32(*a, *b);
    const int32x4x2_t cd = vtrnq_s32(*c, *d);
    *a = vcombine_s32(vget_low_s32(ab.val[0]), vget_low_s32(cd.val[0]));
    *b = vcombine_s32(vget_low_s32(ab.val[1]), vget_low_s32(cd.val[1]));
    *c = vcombine_s32(vget_high_s32(ab.val[0]), vget_high_s32(cd.val[0]));
    *d = vcombine_s32(vget_high_s32(ab.val[1]), vget_high_s32(cd.val[1]));
}

// Turns eight rows into columns.
static inline void transpose(vec_s32 *rows)
{
    for (int32_t i = 0; i < 8; i += 4) {
        transpose(&rows[i].low, &rows[i + 1].low, &rows[i + 2].low, &rows[i + 3].low);
        transpose(&rows[i].high, &rows[i + 1].high, &rows[i + 2].high, &rows[i + 3].high);
    }
    for (int32_t i = 0; i < 4; i++) {
        const int32x4_t corner = rows[i].high;
        rows[i].high = rows[i + 4].low;
        rows[i + 4].low = corner;
    }
}

#else
#define AACENC_VECTOR 0
#endif

#endif // AACENC_VECTOR_S32_H

// Vectors of 32-bit integers: eight with AVX2 on x86, checked at run time, and four with NEON on
// ARM, chosen by the build. AACENC_VECTOR is 0 where there are none.
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
inline constexpr int32_t kLanes = 8;

// Two vectors: the numbers at even places and those at odd places.
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

// Turns kLanes rows into columns.
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

using vec_s32 = int32x4_t;
inline constexpr int32_t kLanes = 4;

// Two vectors: the numbers at even places and those at odd places.
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
    return vld1q_s32(from);
}

static inline void store(int32_t *to, vec_s32 v)
{
    vst1q_s32(to, v);
}

static inline vec_s32 splat(int32_t value)
{
    return vdupq_n_s32(value);
}

static inline vec_s32 add(vec_s32 a, vec_s32 b)
{
    return vaddq_s32(a, b);
}

static inline vec_s32 sub(vec_s32 a, vec_s32 b)
{
    return vsubq_s32(a, b);
}

// As the functions of fixed_point.h, which clear the lowest bit of the product.
static inline vec_s32 mul_q31(vec_s32 a, vec_s32 c)
{
    return vandq_s32(vqdmulhq_s32(a, c), vdupq_n_s32(-2));
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
static inline vec_s32 mul_add_q28(vec_s32 a, vec_s32 c, vec_s32 b, vec_s32 d)
{
    const int64x2_t low =
        vmlal_s32(vmull_s32(vget_low_s32(a), vget_low_s32(c)), vget_low_s32(b), vget_low_s32(d));
    const int64x2_t high = vmlal_s32(vmull_s32(vget_high_s32(a), vget_high_s32(c)),
                                     vget_high_s32(b), vget_high_s32(d));
    return vcombine_s32(vshrn_n_s64(low, 28), vshrn_n_s64(high, 28));
}

static inline vec_s32 reverse(vec_s32 v)
{
    const int32x4_t pairs = vrev64q_s32(v);
    return vcombine_s32(vget_high_s32(pairs), vget_low_s32(pairs));
}

// v with its first lane from `other`
static inline vec_s32 with_first(vec_s32 v, vec_s32 other)
{
    return vsetq_lane_s32(vgetq_lane_s32(other, 0), v, 0);
}

// Splits eight samples in memory.
static inline even_odd load_even_odd(const int16_t *from)
{
    const int16x4x2_t pairs = vld2_s16(from);
    return {vmovl_s16(pairs.val[0]), vmovl_s16(pairs.val[1])};
}

// Splits eight integers in memory.
static inline even_odd load_even_odd(const int32_t *from)
{
    const int32x4x2_t pairs = vld2q_s32(from);
    return {pairs.val[0], pairs.val[1]};
}

static inline void store_even_odd(int32_t *to, vec_s32 even, vec_s32 odd)
{
    const int32x4x2_t pairs = {{even, odd}};
    vst2q_s32(to, pairs);
}

// Turns kLanes rows into columns.
static inline void transpose(vec_s32 *rows)
{
    const int32x4x2_t first = vtrnq_s32(rows[0], rows[1]);
    const int32x4x2_t last = vtrnq_s32(rows[2], rows[3]);
    rows[0] = vcombine_s32(vget_low_s32(first.val[0]), vget_low_s32(last.val[0]));
    rows[1] = vcombine_s32(vget_low_s32(first.val[1]), vget_low_s32(last.val[1]));
    rows[2] = vcombine_s32(vget_high_s32(first.val[0]), vget_high_s32(last.val[0]));
    rows[3] = vcombine_s32(vget_high_s32(first.val[1]), vget_high_s32(last.val[1]));
}

#else
#define AACENC_VECTOR 0
#endif

#endif // AACENC_VECTOR_S32_H

#include "aacenc/tns_vector.h"

#include "aacenc/tns.h"
#include "aacenc/vector_s32.h"

#if AACENC_VECTOR

#if defined(__ARM_NEON)

// Adds the products of four lines, each over 2^kProductShift.
static inline void add_products(int64x2_t *sums, vec_s32 a, vec_s32 b)
{
    *sums = vsraq_n_s64(*sums, vmull_s32(vget_low_s32(a), vget_low_s32(b)), kProductShift);
    *sums = vsraq_n_s64(*sums, vmull_s32(vget_high_s32(a), vget_high_s32(b)), kProductShift);
}

static uint64_t sum_of_products(const int32_t *a, const int32_t *b, int32_t count)
{
    int64x2_t sums = vdupq_n_s64(0);
    for (int32_t n = 0; n < count; n += kLanes) {
        add_products(&sums, load(a + n), load(b + n));
    }
    const uint64x2_t lanes = vreinterpretq_u64_s64(sums); // together up to 2^63
    return vgetq_lane_u64(lanes, 0) + vgetq_lane_u64(lanes, 1);
}

// As mul_q29, of a line below 2^28. The instruction makes (2 * a * b) >> 32.
static inline vec_s32 mul_small_q29(vec_s32 line, int32_t coefficient_q29)
{
    return vqdmulhq_n_s32(vshlq_n_s32(line, 2), coefficient_q29);
}

#else

// There is no arithmetic shift of 64 bits: products are raised above zero, and so are their sums.
VECTOR_CODE static uint64_t sum_of_products(const int32_t *a, const int32_t *b, int32_t count)
{
    const __m256i raise = _mm256_set1_epi64x(int64_t{1} << 62);
    __m256i sums = _mm256_setzero_si256();
    for (int32_t n = 0; n < count; n += kLanes) {
        const vec_s32 x = load(a + n);
        const vec_s32 y = load(b + n);
        const __m256i even = _mm256_add_epi64(_mm256_mul_epi32(x, y), raise);
        const __m256i odd = _mm256_add_epi64(_mm256_mul_epi32(odd_lanes(x), odd_lanes(y)), raise);
        sums = _mm256_add_epi64(sums, _mm256_srli_epi64(even, kProductShift));
        sums = _mm256_add_epi64(sums, _mm256_srli_epi64(odd, kProductShift));
    }
    uint64_t lanes[4];
    _mm256_storeu_si256(reinterpret_cast<__m256i_u *>(lanes), sums);
    return lanes[0] + lanes[1] + lanes[2] + lanes[3] -
           (static_cast<uint64_t>(count) << (62 - kProductShift));
}

// As mul_q29, of a product that fits.
VECTOR_INLINE vec_s32 mul_small_q29(vec_s32 line, int32_t coefficient_q29)
{
    const vec_s32 coefficient = splat(coefficient_q29);
    const __m256i even = _mm256_srli_epi64(_mm256_mul_epi32(line, coefficient), 29);
    const __m256i odd = _mm256_slli_epi64(_mm256_mul_epi32(odd_lanes(line), coefficient), 3);
    return _mm256_blend_epi32(even, odd, 0xAA);
}

#endif

uint64_t lagged_sum_vector(const int32_t *lines, int32_t count, int32_t lag)
{
    const int32_t whole = count / kLanes * kLanes;
    return sum_of_products(lines, lines + lag, whole) +
           lagged_sum(lines + whole, count - whole, lag);
}

VECTOR_CODE int32_t filter_small_lines_vector(const int32_t *work, int32_t first, int32_t end,
                                              const int32_t *direct_form, int32_t *lines)
{
    int32_t n = first;
    for (; n + kLanes <= end; n += kLanes) {
        vec_s32 error = load(work + n);
        for (int32_t i = 1; i <= kMaxTnsOrder; i++) {
            error = add(error, mul_small_q29(load(work + n - i), direct_form[i]));
        }
        store(lines + n, error);
    }
    return n;
}

bool vector_tns_available()
{
    return vectors_available();
}

#else

bool vector_tns_available()
{
    return false;
}

uint64_t lagged_sum_vector(const int32_t *, int32_t, int32_t)
{
    return 0;
}

int32_t filter_small_lines_vector(const int32_t *, int32_t first, int32_t, const int32_t *,
                                  int32_t *)
{
    return first;
}

#endif

#include "aacenc/quantiser_vector.h"

#include "aacenc/codebook_bits.h"
#include "aacenc/quantiser_tables.h"
#include "aacenc/vector_s32.h"

#include <algorithm>

#if AACENC_VECTOR

#if defined(__ARM_NEON)

static vec_s32 magnitudes(vec_s32 v)
{
    return vabsq_s32(v);
}

static vec_s32 with_signs(vec_s32 magnitude, vec_s32 v)
{
    const vec_s32 sign = vshrq_n_s32(v, 31);
    return vsubq_s32(veorq_s32(magnitude, sign), sign);
}

// -1 where v >= bound, else 0
static vec_s32 at_least(vec_s32 v, int32_t bound)
{
    return vreinterpretq_s32_u32(vcgeq_s32(v, vdupq_n_s32(bound)));
}

// As quantise_power: the instruction makes (2 * p * f + 2^31) >> 32.
static vec_s32 quantise_powers(vec_s32 power, int32_t factor_q32)
{
    return vshrq_n_s32(vqrdmulhq_n_s32(power, factor_q32), 1);
}

uint32_t largest_magnitude_vector(const int32_t *spectrum, int32_t count)
{
    uint32x4_t largest = vdupq_n_u32(0);
    for (int32_t k = 0; k < count; k += 4) {
        largest = vmaxq_u32(largest, vreinterpretq_u32_s32(vabsq_s32(vld1q_s32(spectrum + k))));
    }
    uint32x2_t pair = vpmax_u32(vget_low_u32(largest), vget_high_u32(largest));
    pair = vpmax_u32(pair, pair);
    return vget_lane_u32(pair, 0);
}

// NEON cannot read a table of this size by vector.
void raise_lines_vector(const int32_t *spectrum, int32_t count, int32_t *power)
{
    raise_lines(spectrum, count, power);
}

#else

VECTOR_INLINE vec_s32 magnitudes(vec_s32 v)
{
    return _mm256_abs_epi32(v);
}

VECTOR_INLINE vec_s32 with_signs(vec_s32 magnitude, vec_s32 v)
{
    return _mm256_sign_epi32(magnitude, v);
}

// -1 where v >= bound, else 0
VECTOR_INLINE vec_s32 at_least(vec_s32 v, int32_t bound)
{
    return _mm256_cmpgt_epi32(v, splat(bound - 1));
}

// (a * c + rounding) >> 32 of unsigned numbers
VECTOR_INLINE vec_s32 mul_high(vec_s32 a, vec_s32 c, __m256i rounding)
{
    const __m256i even = _mm256_add_epi64(_mm256_mul_epu32(a, c), rounding);
    const __m256i odd = _mm256_add_epi64(_mm256_mul_epu32(odd_lanes(a), odd_lanes(c)), rounding);
    return _mm256_blend_epi32(odd_lanes(even), odd, 0xAA);
}

// As quantise_power.
VECTOR_INLINE vec_s32 quantise_powers(vec_s32 power, int32_t factor_q32)
{
    return mul_high(power, splat(factor_q32), _mm256_set1_epi64x(kQuarter_q32));
}

VECTOR_CODE uint32_t largest_magnitude_vector(const int32_t *spectrum, int32_t count)
{
    __m128i largest = _mm_setzero_si128();
    for (int32_t k = 0; k < count; k += 4) {
        const __m128i lines = _mm_loadu_si128(reinterpret_cast<const __m128i_u *>(spectrum + k));
        largest = _mm_max_epu32(largest, _mm_abs_epi32(lines));
    }
    largest = _mm_max_epu32(largest, _mm_shuffle_epi32(largest, 0x4E));
    largest = _mm_max_epu32(largest, _mm_shuffle_epi32(largest, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(largest));
}

// The lines of CalcPow_RageTable. A magnitude that reaches n of the later starts, as a sum of n
// times -1, selects entry -n modulo 8.
struct power_lines {
    vec_s32 start;
    vec_s32 base;
    vec_s32 slope_q32;
};

VECTOR_INLINE vec_s32 by_count(int32_t power_line::*field)
{
    const power_line *lines = CalcPow_RageTable;
    return _mm256_setr_epi32(lines[0].*field, 0, 0, 0, lines[4].*field, lines[3].*field,
                             lines[2].*field, lines[1].*field);
}

VECTOR_INLINE vec_s32 power_on_lines(vec_s32 magnitude, const power_lines &lines)
{
    vec_s32 line = at_least(magnitude, CalcPow_RageTable[1].start);
    for (int32_t i = 2; i < 5; i++) {
        line = add(line, at_least(magnitude, CalcPow_RageTable[i].start));
    }
    const vec_s32 past_start = sub(magnitude, _mm256_permutevar8x32_epi32(lines.start, line));
    const vec_s32 slope_q32 = _mm256_permutevar8x32_epi32(lines.slope_q32, line);
    return add(_mm256_permutevar8x32_epi32(lines.base, line),
               mul_high(past_start, slope_q32, _mm256_setzero_si256()));
}

VECTOR_CODE void raise_lines_vector(const int32_t *spectrum, int32_t count, int32_t *power)
{
    constexpr int32_t kLastPair = 8190; // entry 8191 is the same and has no neighbour to be read
    const power_lines lines = {by_count(&power_line::start), by_count(&power_line::base),
                               by_count(&power_line::slope_q32)};
    const void *table = CalcPow34;
    for (int32_t k = 0; k < count; k += 8) {
        // 2^31 has the same power as 2^31 - 1.
        const vec_s32 magnitude =
            _mm256_min_epu32(magnitudes(load(spectrum + k)), splat(INT32_MAX));
        const vec_s32 small = _mm256_min_epi32(magnitude, splat(kLastPair));
        const vec_s32 looked_up = _mm256_and_si256(
            _mm256_i32gather_epi32(static_cast<const int *>(table), small, 2), splat(0xFFFF));
        store(power + k, _mm256_blendv_epi8(looked_up, power_on_lines(magnitude, lines),
                                            at_least(magnitude, CalcPow_RageTable[0].start)));
    }
}

#endif

// Quantises the lines of a vector, of a band whose largest value is 1 or 2.
VECTOR_INLINE vec_s32 quantise_low(const band_lines &lines, int32_t k)
{
    const vec_s32 v = load(lines.spectrum + k);
    const vec_s32 magnitude = magnitudes(v);
    const vec_s32 ones_and_twos =
        add(at_least(magnitude, lines.step.least_one), at_least(magnitude, lines.step.least_two));
    return with_signs(sub(splat(0), ones_and_twos), v);
}

// Quantises the lines of a vector, of any other band.
VECTOR_INLINE vec_s32 quantise_high(const band_lines &lines, int32_t k)
{
    return with_signs(quantise_powers(load(lines.power + k), lines.step.factor_q32),
                      load(lines.spectrum + k));
}

VECTOR_CODE void quantise_lines_vector(const band_lines &lines, int32_t count, int32_t max)
{
    if (max <= 2) {
        for (int32_t k = 0; k < count; k += kLanes) {
            store(lines.quantised + k, quantise_low(lines, k));
        }
    } else {
        for (int32_t k = 0; k < count; k += kLanes) {
            store(lines.quantised + k, quantise_high(lines, k));
        }
    }
}

#if !defined(__ARM_NEON)

// Bits of the codewords for eight lines, from the table of a class: in four lanes for pairs, in the
// lower two for quadruples.
template <int32_t kGroup, int16_t kBase, bool kSigned>
VECTOR_INLINE __m128i codeword_bits(const uint32_t *class_table, vec_s32 eight)
{
    const __m128i values =
        _mm_packs_epi32(_mm256_castsi256_si128(eight), _mm256_extracti128_si256(eight, 1));
    const auto weigh = [](__m128i digits, int16_t base) VECTOR_CODE {
        return _mm_madd_epi16(digits, _mm_set1_epi32(1 << 16 | base));
    };
    __m128i index = weigh(kSigned ? values : _mm_abs_epi16(values), kBase);
    if (kGroup == 4) {
        index = weigh(_mm_packs_epi32(index, index), kBase * kBase);
    }
    const int *zero = reinterpret_cast<const int *>(class_table) + (kSigned ? kSignedZero : 0);
    return _mm_i32gather_epi32(zero, index, 4);
}

template <int32_t kGroup, int16_t kBase, bool kSigned>
VECTOR_CODE static uint32_t quantise_and_count(const uint32_t *class_table, band_lines lines,
                                               int32_t count)
{
    __m128i bits = _mm_setzero_si128();
    for (int32_t k = 0; k < count; k += 8) {
        vec_s32 eight = kGroup == 4 ? quantise_low(lines, k) : quantise_high(lines, k);
        store(lines.quantised + k, eight);
        const bool half = k + 4 == count;
        if (half) { // the other lines are of the next band, and any value is possible there
            eight = _mm256_zextsi128_si256(_mm256_castsi256_si128(eight));
        }
        __m128i eight_bits = codeword_bits<kGroup, kBase, kSigned>(class_table, eight);
        if (half) {
            eight_bits = kGroup == 4 ? _mm_blend_epi32(_mm_setzero_si128(), eight_bits, 1)
                                     : _mm_move_epi64(eight_bits);
        }
        bits = _mm_add_epi32(bits, eight_bits);
    }
    if (kGroup == 2) {
        bits = _mm_add_epi32(bits, _mm_unpackhi_epi64(bits, bits));
    }
    return static_cast<uint32_t>(_mm_cvtsi128_si32(bits)) +
           static_cast<uint32_t>(_mm_extract_epi32(bits, 1));
}

uint32_t quantise_and_count_vector(const band_lines &lines, int32_t count, int32_t odd_book)
{
    switch (odd_book) {
    case 1:
        return quantise_and_count<4, 3, true>(bits1_2, lines, count);
    case 3:
        return quantise_and_count<4, 3, false>(bits3_4, lines, count);
    case 5:
        return quantise_and_count<2, 9, true>(bits5_6, lines, count);
    case 7:
        return quantise_and_count<2, 8, false>(bits7_8, lines, count);
    default:
        return quantise_and_count<2, 13, false>(bits9_10, lines, count);
    }
}

#endif

bool vector_quantiser_available()
{
    return vectors_available();
}

#else

bool vector_quantiser_available()
{
    return false;
}

uint32_t largest_magnitude_vector(const int32_t *, int32_t)
{
    return 0;
}

void raise_lines_vector(const int32_t *, int32_t, int32_t *)
{
}

void quantise_lines_vector(const band_lines &, int32_t, int32_t)
{
}

#endif

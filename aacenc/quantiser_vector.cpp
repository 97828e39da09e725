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

// The magnitudes of a vector of lines, of a band whose largest value is 1 or 2.
VECTOR_INLINE vec_s32 quantise_low(const band_lines &lines, vec_s32 v)
{
    const vec_s32 magnitude = magnitudes(v);
    const vec_s32 ones_and_twos =
        add(at_least(magnitude, lines.step.least_one), at_least(magnitude, lines.step.least_two));
    return sub(splat(0), ones_and_twos);
}

// The magnitudes of a vector of lines, of any other band.
VECTOR_INLINE vec_s32 quantise_high(const band_lines &lines, int32_t k)
{
    return quantise_powers(load(lines.power + k), lines.step.factor_q32);
}

VECTOR_CODE void quantise_lines_vector(const band_lines &lines, int32_t count, int32_t max,
                                       int32_t *quantised)
{
    const int32_t whole = count / kLanes * kLanes;
    if (max <= 2) {
        for (int32_t k = 0; k < whole; k += kLanes) {
            const vec_s32 v = load(lines.spectrum + k);
            store(quantised + k, with_signs(quantise_low(lines, v), v));
        }
    } else {
        for (int32_t k = 0; k < whole; k += kLanes) {
            store(quantised + k, with_signs(quantise_high(lines, k), load(lines.spectrum + k)));
        }
    }
    quantise_lines({lines.spectrum + whole, lines.power + whole, lines.step}, count - whole, max,
                   quantised + whole);
}

// What a codebook is indexed with: quadruples of values up to 2, or pairs.
template <int32_t kGroup, bool kSigned>
VECTOR_INLINE vec_s32 coded_values(const band_lines &lines, int32_t k)
{
    if constexpr (kGroup == 2 && !kSigned) {
        return quantise_high(lines, k);
    }
    const vec_s32 v = load(lines.spectrum + k);
    if constexpr (kGroup == 4 && kSigned) { // values up to 1
        return sub(at_least(sub(splat(0), v), lines.step.least_one),
                   at_least(v, lines.step.least_one));
    }
    return kSigned ? with_signs(quantise_high(lines, k), v) : quantise_low(lines, v);
}

#if defined(__ARM_NEON)

// Bits of the codewords for four lines.
template <int32_t kGroup, int32_t kBase, typename Entry>
static inline uint32_t codeword_bits(const Entry *zero, vec_s32 four)
{
    static constexpr int32_t kWeights[4] = {kGroup == 4 ? kBase * kBase * kBase : kBase,
                                            kGroup == 4 ? kBase * kBase : 1, kBase, 1};
    const vec_s32 weighed = vmulq_s32(four, load(kWeights));
    int32x2_t index = vpadd_s32(vget_low_s32(weighed), vget_high_s32(weighed));
    if (kGroup == 4) {
        return zero[vget_lane_s32(vpadd_s32(index, index), 0)];
    }
    return zero[vget_lane_s32(index, 0)] + uint32_t{zero[vget_lane_s32(index, 1)]};
}

template <int32_t kGroup, int32_t kBase, bool kSigned>
static uint32_t count_class(const uint32_t *class_table, band_lines lines, int32_t count)
{
    uint32_t bits = 0;
    for (int32_t k = 0; k < count; k += 4) {
        bits += codeword_bits<kGroup, kBase>(class_table + (kSigned ? kSignedZero : 0),
                                             coded_values<kGroup, kSigned>(lines, k));
    }
    return bits;
}

static uint32_t count_escape_book(band_lines lines, int32_t count)
{
    uint32_t bits = 0;
    int32x4_t escapes = vdupq_n_s32(0); // prefix bits
    for (int32_t k = 0; k < count; k += 4) {
        const vec_s32 four = quantise_high(lines, k);
        bits += codeword_bits<2, kEscapeBase>(bits11, vminq_s32(four, splat(kEscapeMark)));
        const vec_s32 length = vsubq_s32(splat(59), vshlq_n_s32(vclzq_s32(four), 1));
        escapes = add(escapes, vandq_s32(length, at_least(four, kEscapeMark)));
    }
    int32x2_t pair = vpadd_s32(vget_low_s32(escapes), vget_high_s32(escapes));
    return bits + static_cast<uint32_t>(vget_lane_s32(vpadd_s32(pair, pair), 0));
}

#else

// The lower half of eight numbers and the upper half.
VECTOR_INLINE __m128i low_half(vec_s32 v)
{
    return _mm256_castsi256_si128(v);
}

VECTOR_INLINE __m128i high_half(vec_s32 v)
{
    return _mm256_extracti128_si256(v, 1);
}

VECTOR_INLINE __m128i weigh(__m128i digits, int16_t base)
{
    return _mm_madd_epi16(digits, _mm_set1_epi32(1 << 16 | base));
}

VECTOR_INLINE uint32_t lower_sum(__m128i v)
{
    return static_cast<uint32_t>(_mm_cvtsi128_si32(v)) +
           static_cast<uint32_t>(_mm_extract_epi32(v, 1));
}

VECTOR_INLINE uint32_t sum(__m128i v)
{
    return lower_sum(_mm_add_epi32(v, _mm_unpackhi_epi64(v, v)));
}

// Eight lines, or four: the others are of the next band, and any value is possible there.
VECTOR_INLINE vec_s32 of_band(vec_s32 eight, bool half)
{
    return half ? _mm256_zextsi128_si256(low_half(eight)) : eight;
}

template <int32_t kGroup, int32_t kBase, bool kSigned>
VECTOR_CODE static uint32_t count_class(const uint32_t *class_table, band_lines lines,
                                        int32_t count)
{
    const int *zero = reinterpret_cast<const int *>(class_table) + (kSigned ? kSignedZero : 0);
    __m128i bits = _mm_setzero_si128();
    for (int32_t k = 0; k < count; k += 8) {
        const bool half = k + 4 == count;
        const vec_s32 eight = of_band(coded_values<kGroup, kSigned>(lines, k), half);
        __m128i index = weigh(_mm_packs_epi32(low_half(eight), high_half(eight)), kBase);
        if (kGroup == 4) { // the same two indices twice
            index = weigh(_mm_packs_epi32(index, index), kBase * kBase);
        }
        __m128i eight_bits = _mm_i32gather_epi32(zero, index, 4);
        if (half) {
            eight_bits = _mm_blend_epi32(_mm_setzero_si128(), eight_bits, kGroup == 4 ? 1 : 3);
        }
        bits = _mm_add_epi32(bits, eight_bits);
    }
    return kGroup == 4 ? lower_sum(bits) : sum(bits);
}

VECTOR_CODE static uint32_t count_escape_book(band_lines lines, int32_t count)
{
    const int *table = reinterpret_cast<const int *>(static_cast<const void *>(bits11));
    __m128i bits = _mm_setzero_si128();
    vec_s32 escapes = _mm256_setzero_si256();
    for (int32_t k = 0; k < count; k += 8) {
        const bool half = k + 4 == count;
        const vec_s32 eight = of_band(quantise_high(lines, k), half);
        const vec_s32 marked = _mm256_min_epi32(eight, splat(kEscapeMark));
        const __m128i index =
            weigh(_mm_packs_epi32(low_half(marked), high_half(marked)), kEscapeBase);
        const __m128i entries =
            _mm_and_si128(_mm_i32gather_epi32(table, index, 1), _mm_set1_epi32(0xFF));
        bits =
            _mm_add_epi32(bits, half ? _mm_blend_epi32(_mm_setzero_si128(), entries, 3) : entries);
        // The exponent of a number below 2^24, over 127, is its logarithm, rounded down.
        const vec_s32 exponent =
            _mm256_srli_epi32(_mm256_castps_si256(_mm256_cvtepi32_ps(eight)), 23);
        const vec_s32 length = sub(add(exponent, exponent), splat(2 * (127 + 4) - 5));
        escapes = add(escapes, _mm256_and_si256(length, at_least(eight, kEscapeMark)));
    }
    return sum(_mm_add_epi32(bits, _mm_add_epi32(low_half(escapes), high_half(escapes))));
}

#endif

uint32_t count_bits_vector(const band_lines &lines, int32_t count, int32_t odd_book)
{
    switch (odd_book) {
    case 1:
        return count_class<4, 3, true>(bits1_2, lines, count);
    case 3:
        return count_class<4, 3, false>(bits3_4, lines, count);
    case 5:
        return count_class<2, 9, true>(bits5_6, lines, count);
    case 7:
        return count_class<2, 8, false>(bits7_8, lines, count);
    case 9:
        return count_class<2, 13, false>(bits9_10, lines, count);
    default:
        return count_escape_book(lines, count) | kNoPartner;
    }
}

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

void quantise_lines_vector(const band_lines &, int32_t, int32_t, int32_t *)
{
}

uint32_t count_bits_vector(const band_lines &, int32_t, int32_t)
{
    return 0;
}

#endif

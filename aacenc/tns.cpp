#include "aacenc/tns.h"

#include "aacenc/fixed_point.h"
#include "aacenc/quantiser.h"
#include "aacenc/tns_tables.h"
#include "aacenc/tns_vector.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <iterator>

static constexpr int32_t kCoefRes = 4;
static constexpr int32_t kIndexZero = 8; // entry of the value 0 in the quantiser's tables
static constexpr int32_t kLastEntry = 15;
static constexpr int32_t kOne_q29 = 1 << 29;
static constexpr int32_t kSmallest_q29 = 53687091;   // 0.1: a coefficient up to here counts as zero
static constexpr int32_t kGainThreshold_q14 = 22938; // 1.4

static constexpr int32_t kSumShift = 11; // of the autocorrelation, after the sum

int32_t AACENC_snorm_l2(int64_t value, int64_t *normalised)
{
    const uint64_t bits = static_cast<uint64_t>(value);
    const int32_t places = value == 0 ? 0 : std::countl_zero(value < 0 ? ~bits : bits) - 1;
    *normalised = static_cast<int64_t>(bits << places);
    return places;
}

int32_t AACENC_L_add(int32_t a, int32_t b)
{
    return sat32(static_cast<int64_t>(a) + b);
}

void TnsInit(int32_t sample_rate, AacEncTns *tns)
{
    constexpr size_t kRates = std::size(tnsSupportedSamplingRates);
    for (size_t position = 0; position < kRates; position++) {
        if (tnsSupportedSamplingRates[position] == sample_rate) {
            const size_t row = kRates - 1 - position;
            tns->minBand = tnsMinBandNumberLong[row];
            tns->maxBands = tnsMaxBandsLongMainLow[row];
            tns->maxOrder = tnsMaxOrderLongLow;
        }
    }
}

uint64_t lagged_sum(const int32_t *lines, int32_t count, int32_t lag)
{
    uint64_t sum = 0;
    for (int32_t n = 0; n < count; n++) {
        sum += static_cast<uint64_t>(mul_s64(lines[n + lag], lines[n]) >> kProductShift);
    }
    return sum;
}

// A checked build runs the plain code, which checks its ranges.
static bool takes_vectors()
{
#ifdef TDMBREC_CHECKED
    return false;
#else
    return vector_tns_available();
#endif
}

// out |r| <= 2^52: up to 1024 products of 2^62, shifted by 20. Only the sum of squares can reach
// 2^63, and is therefore unsigned.
static void autocorrelate(int32_t line_count, const int32_t *lines, int64_t *r)
{
    const auto sum = takes_vectors() ? lagged_sum_vector : lagged_sum;
    r[0] = static_cast<int64_t>(sum(lines, line_count, 0) >> kSumShift);
    for (int32_t lag = 1; lag <= kMaxTnsOrder; lag++) {
        r[lag] = static_cast<int64_t>(sum(lines, line_count - lag, lag)) >> kSumShift;
    }
}

// One step of the recursion in place: from the predictor of order m - 1 to that of order m.
static void raise_order(int32_t *predictor_q28, int32_t m, int32_t k_q28)
{
    predictor_q28[m] = k_q28;
    for (int32_t low = 1, high = m - 1; low <= high; low++, high--) {
        const int32_t a = predictor_q28[low];
        const int32_t b = predictor_q28[high];
        predictor_q28[low] = AACENC_L_add(a, sat32(mul_q28(b, k_q28)));
        predictor_q28[high] = AACENC_L_add(b, sat32(mul_q28(a, k_q28)));
    }
}

int32_t LevinsonDurbin_fixed(int32_t line_count, const int32_t *lines, int32_t *reflection_out)
{
    int64_t r[kMaxTnsOrder + 1];
    autocorrelate(line_count, lines, r);
    std::fill_n(reflection_out + 1, kMaxTnsOrder, 0);
    if (r[0] == 0) {
        return 0;
    }

    // Normalised to 2^29 <= r[0] < 2^30; no other lag is larger.
    int64_t normalised = 0;
    const int32_t places = AACENC_snorm_l2(r[0], &normalised);
    for (int64_t &lag : r) {
        lag = static_cast<int64_t>(static_cast<uint64_t>(lag) << places) >> 33;
    }

    int32_t predictor_q28[kMaxTnsOrder + 1] = {}; // [0], always 1.0, is not used
    int64_t error = r[0] | 1;
    for (int32_t m = 1; m <= kMaxTnsOrder; m++) {
        int64_t correlation = r[m]; // of the prediction error: |predictor| < 2^31, |r| < 2^30
        for (int32_t j = 1; j < m; j++) {
            correlation += mul_q28(r[m - j], predictor_q28[j]);
        }
        if (correlation >= error || correlation <= -error) {
            break; // predicted as far as the precision goes
        }
        int64_t error_norm = 0;
        const int32_t error_places = AACENC_snorm_l2(error, &error_norm);
        const int64_t numerator = -correlation * (int64_t{1} << error_places);
        const int32_t k_q28 = narrow_s32(numerator / (error_norm >> 28));
        reflection_out[m] = k_q28;
        raise_order(predictor_q28, m, k_q28);
        error = (error - mul_q28(mul_q28(error, k_q28), k_q28)) | 1;
    }
    return r[0] > (error * kGainThreshold_q14) >> 14 ? 1 : 0;
}

void QuantizeReflectionCoeffs_fixedVer(int32_t *reflection, int8_t *indices)
{
    for (int32_t i = 1; i <= kMaxTnsOrder; i++) {
        int32_t j = 1;
        while (j < kLastEntry && search4[j] < reflection[i]) {
            j++;
        }
        indices[i] = static_cast<int8_t>(j - kIndexZero);
        reflection[i] = kArray_Out[j];
    }
}

int32_t StepUp_fixedVer(int32_t order, const int32_t *reflection, int32_t *direct_form)
{
    int32_t before[kMaxTnsOrder + 1];
    std::fill_n(direct_form, order + 1, 0);
    direct_form[0] = kOne_q29;
    for (int32_t m = 1; m <= order; m++) {
        std::copy_n(direct_form, m + 1, before);
        for (int32_t j = 1; j <= m; j++) {
            const int64_t sum = before[j] + mul_q29(reflection[m], before[m - j]);
            if (sum != static_cast<int32_t>(sum)) {
                return -1;
            }
            direct_form[j] = static_cast<int32_t>(sum);
        }
    }
    return 0;
}

// returns: whether the lines are below 2^28 and all sums of the filter below 2^31
static bool sums_are_small(int32_t line_count, const int32_t *lines, int32_t order,
                           const int32_t *direct_form)
{
    const uint32_t largest = largest_magnitude(lines, line_count);
    uint64_t gain_q29 = 0;
    for (int32_t i = 0; i <= order; i++) {
        gain_q29 += abs_u32(direct_form[i]);
    }
    constexpr uint32_t kRounding = kMaxTnsOrder;
    return largest < 1U << 28 && (gain_q29 * largest >> 29) + kRounding < 1U << 31;
}

void filter_small_lines(const int32_t *work, int32_t first, int32_t end, const int32_t *direct_form,
                        int32_t *lines)
{
    for (int32_t n = first; n < end; n++) {
        word_s32 error = work[n];
        for (int32_t i = 1; i <= kMaxTnsOrder; i++) {
            error += mulhi(work[n - i] * (1 << (32 - 29)), direct_form[i]);
        }
        lines[n] = static_cast<int32_t>(error);
    }
}

static void filter_lines(const int32_t *work, int32_t end, int32_t order,
                         const int32_t *direct_form, int32_t *lines)
{
    for (int32_t n = 0; n < end; n++) {
        int64_t error = work[n];
        for (int32_t i = 1; i <= std::min(n, order); i++) {
            error += mul_q29(work[n - i], direct_form[i]);
        }
        lines[n] = sat32(error);
    }
}

void TnsInvFilter_fixedVer04(int32_t line_count, int32_t *lines, int32_t order,
                             const int32_t *direct_form, int32_t *work)
{
    std::copy_n(lines, line_count, work);
    if (line_count <= kMaxTnsOrder || !sums_are_small(line_count, lines, order, direct_form)) {
        filter_lines(work, line_count, order, direct_form, lines);
        return;
    }
    int32_t all_taps[kMaxTnsOrder + 1] = {};
    std::copy_n(direct_form, order + 1, all_taps);
    filter_lines(work, kMaxTnsOrder, order, direct_form, lines);
    int32_t n = kMaxTnsOrder;
    if (takes_vectors()) {
        n = filter_small_lines_vector(work, n, line_count, all_taps, lines);
    }
    filter_small_lines(work, n, line_count, all_taps, lines);
}

// Sets the small coefficients at the top to zero.
// returns: the order that is left
static int32_t truncate_order(AacEncTnsFilter *filter)
{
    int32_t order = kMaxTnsOrder;
    while (order > 0 && filter->reflection[order] >= -kSmallest_q29 &&
           filter->reflection[order] <= kSmallest_q29) {
        filter->reflection[order] = 0;
        order--;
    }
    return order;
}

int32_t TnsEncode_fixedVer(int32_t nsfb, int32_t max_sfb, const int32_t *swb_offset,
                           int32_t *spectrum, AacEncTns *tns, int32_t enable, int32_t *work1,
                           int32_t *work2)
{
    tns->active = 0;
    if (!enable) {
        return 0;
    }
    tns->nFilt = 0;
    tns->coefRes = kCoefRes;
    const int32_t start = swb_offset[std::min({max_sfb, tns->maxBands, tns->minBand})];
    const int32_t end = swb_offset[std::min({nsfb, tns->maxBands, max_sfb})];
    if (end - start < 1) {
        return -2;
    }

    AacEncTnsFilter *filter = &tns->filter;
    std::copy(spectrum + start, spectrum + end, work1);
    if (!LevinsonDurbin_fixed(end - start, work1, filter->reflection)) {
        return 0;
    }
    tns->nFilt = 1;
    filter->direction = 0;
    filter->coefCompress = 0;
    tns->active = 1;
    filter->length = nsfb - tns->minBand;

    for (int32_t i = 1; i <= kMaxTnsOrder; i++) { // Q28 to Q29
        filter->reflection[i] = sat32(mul_s64(filter->reflection[i], 2));
    }
    QuantizeReflectionCoeffs_fixedVer(filter->reflection, filter->index);
    filter->order = truncate_order(filter);
    while (StepUp_fixedVer(filter->order, filter->reflection, filter->directForm) != 0) {
        filter->reflection[filter->order--] = 0; // order 2 and below always fit
    }
    TnsInvFilter_fixedVer04(end - start, spectrum + start, filter->order, filter->directForm,
                            work2);
    return 0;
}

// Temporal noise shaping: one prediction filter over the upper part of a channel's spectrum.
#ifndef AACENC_TNS_H
#define AACENC_TNS_H

#include "aacenc/encoder_state.h"

#include <cstdint>

inline constexpr int32_t kProductShift = 9; // of the autocorrelation, before the sum

// Sets the filter range and order for a sample rate.
void TnsInit(int32_t sample_rate, AacEncTns *tns);

// Filters the spectrum in place when the prediction gain is high enough, and fills the TNS record.
// in: nsfb: scalefactor bands of the sample rate
// in: max_sfb: scalefactor bands coded
// in: enable: 0 only clears the record's active flag
// in: work1, work2: 1024 entries each
// returns: 0, or -2 when the filter range is empty
// source: ISO/IEC 14496-3, 4.6.9
[[nodiscard]] int32_t TnsEncode_fixedVer(int32_t nsfb, int32_t max_sfb, const int32_t *swb_offset,
                                         int32_t *spectrum, AacEncTns *tns, int32_t enable,
                                         int32_t *work1, int32_t *work2);

// Derives the reflection coefficients of the best predictor of order 12.
// in: line_count: up to 1024
// in: lines: any values
// out: reflection_out: [1..12], Q28, within +-1
// returns: nonzero when the prediction gain exceeds 1.4
[[nodiscard]] int32_t LevinsonDurbin_fixed(int32_t line_count, const int32_t *lines,
                                           int32_t *reflection_out);

// returns: the sum of lines[n + lag] * lines[n] over 2^kProductShift, each rounded down, modulo
// 2^64
[[nodiscard]] uint64_t lagged_sum(const int32_t *lines, int32_t count, int32_t lag);

// Quantises reflection coefficients.
// in: reflection: [1..12], Q29
// out: reflection: the values that a decoder reconstructs
// out: indices: [1..12], -7..7
void QuantizeReflectionCoeffs_fixedVer(int32_t *reflection, int8_t *indices);

// Turns reflection coefficients into the direct form.
// in: reflection: [1..order], Q29
// out: direct_form: [0..order], Q29
// returns: 0, or -1 when a coefficient exceeds Q29
[[nodiscard]] int32_t StepUp_fixedVer(int32_t order, const int32_t *reflection,
                                      int32_t *direct_form);

// Replaces lines by their prediction error, from the lowest line upward; saturates.
// in: direct_form: [0..order], Q29
// in: work: `line_count` entries
void TnsInvFilter_fixedVer04(int32_t line_count, int32_t *lines, int32_t order,
                             const int32_t *direct_form, int32_t *work);

// Filters lines as TnsInvFilter_fixedVer04 does, from `first`, at least kMaxTnsOrder, to `end`.
// in: work: the lines, below 2^28; all sums are below 2^31
// in: direct_form: [1..kMaxTnsOrder], Q29
void filter_small_lines(const int32_t *work, int32_t first, int32_t end, const int32_t *direct_form,
                        int32_t *lines);

// out: normalised: the value shifted left until the bit below its sign bit differs from it
// returns: the number of places, 0 for the value 0
[[nodiscard]] int32_t AACENC_snorm_l2(int64_t value, int64_t *normalised);

// returns: a + b, saturated
[[nodiscard]] int32_t AACENC_L_add(int32_t a, int32_t b);

#endif // AACENC_TNS_H

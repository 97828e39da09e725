// The complex FFT of the filterbank.
#ifndef AACENC_FFT_H
#define AACENC_FFT_H

#include <cstdint>

// Forward complex FFT in place, kernel e^(-j 2 pi t k / n), without scaling.
// in: data: n complex points as pairs (real, imaginary), sum of all magnitudes below 2^31 / 2
// in: n: 512
// out: data: the transform, in the same form
void AACENC_gCmplxFft(int32_t *data, int32_t n);

// Third stage: the 8-point groups, with the constant sqrt(1/2).
// in: c_q31: kSqrtHalf_q31
void AACE_FFT_sInnerLoop_Stg2(int32_t *data, int32_t groups, int32_t c_q31);

// One radix-2 stage over one group of 2 * span points.
// in: table: quarter-wave cosine, Q31, 257 entries
// in: stride: step of the twiddles in the table, 512 / span
// returns: the end of the group
int32_t *AACE_FFT_sInnerLoop(int32_t *data, const int32_t *table, int32_t span, int32_t stride);

#endif // AACENC_FFT_H

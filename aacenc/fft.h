// The complex FFT of the filterbank: nine radix-2 stages.
#ifndef AACENC_FFT_H
#define AACENC_FFT_H

#include <cstdint>

// Forward complex FFT in place, kernel e^(-j 2 pi t k / n), without scaling. Each pass over the
// data but the third stage is two stages with the products and roundings of two passes. in: data: n
// complex points as pairs (real, imaginary) in bit-reversed order, sum of all magnitudes below 2^31
// / 2 in: n: 512 out: data: the transform, in natural order
void AACENC_gCmplxFft(int32_t *data, int32_t n);

// Third stage: the 8-point groups, with the constant sqrt(1/2).
// in: c_q31: kSqrtHalf_q31
void AACE_FFT_sInnerLoop_Stg2(int32_t *data, int32_t groups, int32_t c_q31);

#endif // AACENC_FFT_H

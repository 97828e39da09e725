// The twiddle factors around the FFT of the filterbank.
#ifndef AACENC_FILTERBANK_TWIDDLES_H
#define AACENC_FILTERBANK_TWIDDLES_H

#include "aacenc/fixed_point.h"

#include <cstdint>

inline constexpr int32_t kFftPoints = 512;
inline constexpr int32_t kQuarterWave = 256; // entry of CPLX_COEFF with the sine of entry 0
inline constexpr int32_t kSqrtHalf_q31 = 1518500224;

// A twiddle factor cos + j sin. The angle decreases by 2 pi / 2048 from one factor of a sequence to
// the next: next = before + 2j sin(-2 pi / 2048) * current.
struct twiddle {
    word_s32 cos_q31;
    word_s32 sin_q31;
};

inline constexpr int32_t kTwiceSinStep_q31 = -13176773;

// Two factors in a row, the second at the first angle used: -2 pi / 8192 and 0.
inline constexpr twiddle kPreTwiddle[2] = {{2147477962, 4941293}, {2147483015, -1647099}};
inline constexpr twiddle kPostTwiddle[2] = {{2147473540, 6588386}, {2147483647, 0}};

// Advances a factor by two steps; `following` is one step ahead of it.
constexpr void advance(twiddle *t, const twiddle &following)
{
    t->cos_q31 = sub_s32(t->cos_q31, mul_q31(following.sin_q31, kTwiceSinStep_q31));
    t->sin_q31 = add_s32(t->sin_q31, mul_q31(following.cos_q31, kTwiceSinStep_q31));
}

#endif // AACENC_FILTERBANK_TWIDDLES_H

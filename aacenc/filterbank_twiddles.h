// The twiddle factors around the FFT of the filterbank.
#ifndef AACENC_FILTERBANK_TWIDDLES_H
#define AACENC_FILTERBANK_TWIDDLES_H

#include "aacenc/fixed_point.h"

#include <cstdint>

// A twiddle factor cos + j sin. Those of a sequence lie an angle of -2 pi / 2048 apart and follow
// by the recurrence next = before + 2j sin(angle) * current.
struct Twiddle {
    int32_t cos_q31;
    int32_t sin_q31;
};

inline constexpr int32_t kTwiceSinStep_q31 = -13176773;

// First angles -2 pi / 8192 and 0, each behind the one before.
inline constexpr Twiddle kPreTwiddle[2] = {{2147477962, 4941293}, {2147483015, -1647099}};
inline constexpr Twiddle kPostTwiddle[2] = {{2147473540, 6588386}, {2147483647, 0}};

// Takes a factor two steps on, past the one that follows it.
constexpr void advance(Twiddle *t, const Twiddle &following)
{
    t->cos_q31 = sub_s32(t->cos_q31, mul_q31(following.sin_q31, kTwiceSinStep_q31));
    t->sin_q31 = add_s32(t->sin_q31, mul_q31(following.cos_q31, kTwiceSinStep_q31));
}

#endif // AACENC_FILTERBANK_TWIDDLES_H

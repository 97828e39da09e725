// Quantisation with the power law x^(3/4).
#ifndef AACENC_QUANTISER_H
#define AACENC_QUANTISER_H

#include <cstdint>

inline constexpr int32_t kMaxFactorGain = 99; // gain of the smallest quantiser factor

// returns: floor(log2(x)), 0 for x = 0
[[nodiscard]] int32_t AACENC_LOG2(uint32_t x);

// returns: x^(3/4) of a magnitude, at most 2^31
[[nodiscard]] int32_t power_three_quarters(uint32_t magnitude);

// returns: the quantiser factor of a gain, Q29; the same one for every gain from 99 up
[[nodiscard]] int32_t quantiser_factor(int32_t gain);

// returns: a value of the power law, quantised with a factor in Q29; rounds up from 3/4
[[nodiscard]] inline int32_t quantise_power(int32_t power, int32_t factor_q29)
{
    // Neither is negative. An unsigned product is one that compilers vectorise.
    const uint64_t product_q29 =
        uint64_t{static_cast<uint32_t>(power)} * static_cast<uint32_t>(factor_q29);
    return static_cast<int32_t>((product_q29 + (1 << 27)) >> 29);
}

// Quantises lines: `out` gets the quantised magnitudes with the signs of `spectrum`.
void quantise_lines(const int32_t *spectrum, const int32_t *power, int32_t count,
                    int32_t factor_q29, int32_t *out);

#endif // AACENC_QUANTISER_H

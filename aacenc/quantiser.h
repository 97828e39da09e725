// Quantisation with the power law x^(3/4). `count` is a number of lines, a multiple of 4.
#ifndef AACENC_QUANTISER_H
#define AACENC_QUANTISER_H

#include <bit>
#include <cstdint>

inline constexpr int32_t kMinFactorGain = 6;  // gain of the largest quantiser factor
inline constexpr int32_t kMaxFactorGain = 99; // gain of the smallest quantiser factor
inline constexpr uint32_t kQuarter_q32 = 1U << 30;

// returns: floor(log2(x)), 0 for x = 0
[[nodiscard]] inline int32_t AACENC_LOG2(uint32_t x)
{
    return x < 2 ? 0 : static_cast<int32_t>(std::bit_width(x)) - 1;
}

// in: magnitude: up to 2^31
// returns: its power 3/4, which never falls when the magnitude rises
[[nodiscard]] int32_t power_three_quarters(uint32_t magnitude);

// How a gain quantises; constant from kMaxFactorGain on.
struct gain_step {
    int32_t factor_q32; // 2^(-3g/16), below 0.5
    int32_t least_one;  // the least magnitude of a line that is quantised to 1
    int32_t least_two;  // the least one that is quantised to 2
};

// in: gain: at least kMinFactorGain
[[nodiscard]] gain_step step_of_gain(int32_t gain);

// returns: the quantised value of a power; rounds up from 3/4
[[nodiscard]] inline int32_t quantise_power(int32_t power, int32_t factor_q32)
{
    // Neither is negative; compilers vectorise only the unsigned product.
    const uint64_t product_q32 =
        uint64_t{static_cast<uint32_t>(power)} * static_cast<uint32_t>(factor_q32);
    return static_cast<int32_t>((product_q32 + kQuarter_q32) >> 32);
}

// returns: the largest magnitude of the lines, 0 for no lines
[[nodiscard]] uint32_t largest_magnitude(const int32_t *spectrum, int32_t count);

// Raises the magnitudes of lines to the power 3/4.
// out: power: `count` entries
void raise_lines(const int32_t *spectrum, int32_t count, int32_t *power);

#endif // AACENC_QUANTISER_H

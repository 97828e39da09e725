// Quantisation with the power law x^(3/4).
#ifndef AACENC_QUANTISER_H
#define AACENC_QUANTISER_H

#include <bit>
#include <cstdint>

inline constexpr int32_t kMaxFactorGain = 99; // gain of the smallest quantiser factor
inline constexpr uint32_t kQuarter_q29 = 1U << 27;

// returns: floor(log2(x)), 0 for x = 0
[[nodiscard]] inline int32_t AACENC_LOG2(uint32_t x)
{
    return x < 2 ? 0 : static_cast<int32_t>(std::bit_width(x)) - 1;
}

// in: magnitude: up to 2^31
// returns: its power 3/4
[[nodiscard]] int32_t power_three_quarters(uint32_t magnitude);

// returns: the quantiser factor of a gain, Q29; constant from kMaxFactorGain on
[[nodiscard]] int32_t quantiser_factor(int32_t gain);

// returns: the quantised value of a power; rounds up from 3/4
[[nodiscard]] inline int32_t quantise_power(int32_t power, int32_t factor_q29)
{
    // Neither is negative; compilers vectorise only the unsigned product.
    const uint64_t product_q29 =
        uint64_t{static_cast<uint32_t>(power)} * static_cast<uint32_t>(factor_q29);
    return static_cast<int32_t>((product_q29 + kQuarter_q29) >> 29);
}

// Lines with the factor that quantises them.
struct scaled_lines {
    const int32_t *spectrum; // for the signs
    const int32_t *power;    // magnitudes to the power 3/4
    int32_t factor_q29;
};

// returns: the quantised magnitude of a line
[[nodiscard]] inline int32_t line_magnitude(const scaled_lines &lines, int32_t k)
{
    return quantise_power(lines.power[k], lines.factor_q29);
}

// returns: the quantised line
[[nodiscard]] inline int32_t line_value(const scaled_lines &lines, int32_t k)
{
    const int32_t magnitude = line_magnitude(lines, k);
    return lines.spectrum[k] > 0 ? magnitude : -magnitude;
}

// Raises the magnitudes of lines to the power 3/4.
// out: power: `count` entries
// returns: the largest power, 0 for no lines
[[nodiscard]] int32_t raise_lines(const int32_t *spectrum, int32_t count, int32_t *power);

// out: quantised: `count` quantised lines
void quantise_lines(const scaled_lines &lines, int32_t count, int32_t *quantised);

#endif // AACENC_QUANTISER_H

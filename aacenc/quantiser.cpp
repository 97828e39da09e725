#include "aacenc/quantiser.h"

#include "aacenc/fixed_point.h"
#include "aacenc/quantiser_tables.h"

#include <algorithm>
#include <bit>
#include <iterator>

// Line of CalcPow_RageTable by the leading zeros of a magnitude that CalcPow34 does not hold.
static constexpr uint8_t kLineOfZeros[19] = {
    4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 2, 2, 2, 1, 1, 1, 0, 0, 0,
};

// in: powers, lines: CalcPow34 and CalcPow_RageTable, whose addresses a loop keeps in registers
static int32_t raise(uint32_t magnitude, const int16_t *powers, const power_line *lines)
{
    if (magnitude < std::size(CalcPow34)) {
        return powers[magnitude];
    }
    const power_line &line = lines[kLineOfZeros[std::countl_zero(magnitude)]];
    const uint64_t past_start = magnitude - static_cast<uint32_t>(line.start);
    return line.base +
           static_cast<int32_t>((past_start * static_cast<uint32_t>(line.slope_q32)) >> 32);
}

int32_t power_three_quarters(uint32_t magnitude)
{
    return raise(magnitude, CalcPow34, CalcPow_RageTable);
}

uint32_t largest_magnitude(const int32_t *spectrum, int32_t count)
{
    uint32_t largest = 0;
    for (int32_t k = 0; k < count; k++) {
        largest = std::max(largest, abs_u32(spectrum[k]));
    }
    return largest;
}

void raise_lines(const int32_t *spectrum, int32_t count, int32_t *power)
{
    const int16_t *powers = CalcPow34;
    const power_line *lines = CalcPow_RageTable;
    for (int32_t k = 0; k < count; k++) {
        power[k] = raise(abs_u32(spectrum[k]), powers, lines);
    }
}

int32_t quantiser_factor(int32_t gain)
{
    AACENC_CHECK(gain >= kMinFactorGain);
    return quantfac_table[std::max(kMaxFactorGain - gain, 0)] << (32 - 29);
}

void quantise_lines(const int32_t *spectrum, const int32_t *power, int32_t factor_q32,
                    int32_t count, int32_t *quantised)
{
    for (int32_t k = 0; k < count; k++) {
        const int32_t magnitude = quantise_power(power[k], factor_q32);
        quantised[k] = spectrum[k] > 0 ? magnitude : -magnitude;
    }
}

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

int32_t power_three_quarters(uint32_t magnitude)
{
    if (magnitude < std::size(CalcPow34)) {
        return CalcPow34[magnitude];
    }
    const power_line &line = CalcPow_RageTable[kLineOfZeros[std::countl_zero(magnitude)]];
    const int64_t past_start = static_cast<int64_t>(magnitude) - line.start;
    return line.base + static_cast<int32_t>((past_start * line.slope_q32) >> 32);
}

int32_t raise_lines(const int32_t *spectrum, int32_t count, int32_t *power)
{
    int32_t largest = 0;
    for (int32_t k = 0; k < count; k++) {
        power[k] = power_three_quarters(abs_u32(spectrum[k]));
        largest = std::max(largest, power[k]);
    }
    return largest;
}

int32_t quantiser_factor(int32_t gain)
{
    return quantfac_table[std::clamp(kMaxFactorGain - gain, 0, kMaxFactorGain)];
}

void quantise_lines(const scaled_lines &lines, int32_t count, int32_t *quantised)
{
    for (int32_t k = 0; k < count; k++) {
        quantised[k] = line_value(lines, k);
    }
}

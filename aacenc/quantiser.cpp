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

static int32_t power_on_line(const power_line &line, uint32_t magnitude)
{
    const uint64_t past_start = magnitude - static_cast<uint32_t>(line.start);
    return line.base +
           static_cast<int32_t>((past_start * static_cast<uint32_t>(line.slope_q32)) >> 32);
}

int32_t power_three_quarters(uint32_t magnitude)
{
    if (magnitude < std::size(CalcPow34)) {
        return CalcPow34[magnitude];
    }
    return power_on_line(CalcPow_RageTable[kLineOfZeros[std::countl_zero(magnitude)]], magnitude);
}

uint32_t largest_magnitude(const int32_t *spectrum, int32_t count)
{
    uint32_t largest = 0;
    for (int32_t k = 0; k < count; k += 4) {
        for (int32_t i = k; i < k + 4; i++) {
            largest = std::max(largest, abs_u32(spectrum[i]));
        }
    }
    return largest;
}

void raise_lines(const int32_t *spectrum, int32_t count, int32_t *power)
{
    const power_line first_line = CalcPow_RageTable[0]; // of most lines that are not in CalcPow34
    const uint32_t first_end = static_cast<uint32_t>(CalcPow_RageTable[1].start);
    for (int32_t k = 0; k < count; k += 4) {
        for (int32_t i = k; i < k + 4; i++) {
            const uint32_t magnitude = abs_u32(spectrum[i]);
            power[i] = magnitude < std::size(CalcPow34) ? CalcPow34[magnitude]
                       : magnitude < first_end          ? power_on_line(first_line, magnitude)
                                                        : power_three_quarters(magnitude);
        }
    }
}

gain_step step_of_gain(int32_t gain)
{
    AACENC_CHECK(gain >= kMinFactorGain);
    const int32_t bounded = std::min(gain, kMaxFactorGain);
    return {quantfac_table[kMaxFactorGain - bounded] << (32 - 29), least_magnitude[bounded][0],
            least_magnitude[bounded][1]};
}

// Constants of the quantiser: its factors and the power law x^(3/4).
#ifndef AACENC_QUANTISER_TABLES_H
#define AACENC_QUANTISER_TABLES_H

#include <cstdint>

// A straight line in place of x^(3/4) from `start` on: base + (x - start) * slope.
struct power_line {
    int32_t start;
    int32_t base;
    int32_t slope_q32;
};

// Quantiser factor of index i: 2^(-3 * (99 - i) / 16), truncated. Q29.
extern const int32_t quantfac_table[100];

// The least magnitude of a line that is quantised to 1, and to 2, by gain.
extern const int32_t least_magnitude[100][2];

// floor(x^(3/4)) for x = 0..8191.
extern const int16_t CalcPow34[8192];

// x^(3/4) above 8191: the lines in rising order. Each ends where the next one starts.
extern const power_line CalcPow_RageTable[5];

#endif // AACENC_QUANTISER_TABLES_H

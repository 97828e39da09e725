// Constants of temporal noise shaping. The per-rate tables are in the reverse of the standard's
// order: row r is samplingFrequencyIndex 11 - r.
#ifndef AACENC_TNS_TABLES_H
#define AACENC_TNS_TABLES_H

#include <cstdint>

// Sample rates in Hz; the rate at position p has row 8 - p of the tables below.
extern const int32_t tnsSupportedSamplingRates[9];

// First scalefactor band of the filter, long windows.
extern const uint16_t tnsMinBandNumberLong[12];

// TNS_MAX_BANDS of long windows.
extern const uint8_t tnsMaxBandsLongMainLow[12];

// TNS_MAX_ORDER of long windows, Low Complexity profile.
extern const int32_t tnsMaxOrderLongLow;

// Decision thresholds of the 4-bit coefficient quantiser: 2^29 * sin((j - 8.5) * pi / 17) for
// j = 0..7, 2^29 * sin((j - 7.5) * pi / 15) for j = 8..15, truncated. Q29.
extern const int32_t search4[16];

// Reconstruction values of the indices -8..7: 2^29 * sin(n * pi / 15), for negative n
// 2^29 * sin(n * pi / 17), truncated. Q29.
extern const int32_t kArray_Out[16];

#endif // AACENC_TNS_TABLES_H

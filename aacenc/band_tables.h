// Scalefactor bands and audio bandwidth by sample rate.
#ifndef AACENC_BAND_TABLES_H
#define AACENC_BAND_TABLES_H

#include <cstdint>

struct bandwidth_row {
    int32_t sample_rate;
    int32_t bandwidth_hz[6];
};

// Sample rates in Hz. The position of a rate is its sampling index, 3 below the standard's
// samplingFrequencyIndex.
extern const uint16_t SampleRates[9];

// Row of sr_info_aac for each sampling index.
extern const uint8_t sr_info_index[9];

// Scalefactor bands of a long window: their number, then their widths in lines, lowest band first.
extern const uint8_t sr_info_aac[5][52];

// Audio bandwidth by sample rate. Column i is for bit rates per channel (bit/s) below
// bandwidth_bounds[i], the last column for all others.
extern const bandwidth_row bandwidth_table[9];
extern const int32_t bandwidth_bounds[5];

#endif // AACENC_BAND_TABLES_H

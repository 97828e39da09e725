// The sampling rates of AAC.
#ifndef CLIENT_INPUT_AAC_RATES_H
#define CLIENT_INPUT_AAC_RATES_H

#include <algorithm>
#include <array>
#include <cstddef>

// In Hz, by samplingFrequencyIndex.
// source: ISO/IEC 14496-3, table 1.18
inline constexpr std::array<int, 13> kAacRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                  22050, 16000, 12000, 11025, 8000,  7350};

// returns: the rate's index; the size of the table for any other rate
inline size_t aac_rate_index(int rate)
{
    return static_cast<size_t>(std::find(kAacRates.begin(), kAacRates.end(), rate) -
                               kAacRates.begin());
}

// returns: whether the encoder of this system takes the rate
inline bool is_encoder_rate(int rate)
{
    constexpr int kRateMin = 8000, kRateMax = 48000;
    return aac_rate_index(rate) < kAacRates.size() && rate >= kRateMin && rate <= kRateMax;
}

#endif // CLIENT_INPUT_AAC_RATES_H

// Reads sound frames: raw data blocks of AAC Low Complexity as our encoder writes them. Every bit
// is accounted for, down to the quantised values, and whatever the encoder never writes is refused,
// so that other data does not look like a frame. source: ISO/IEC 14496-3, 4.4.2
#ifndef RECOVERY_AAC_FRAME_H
#define RECOVERY_AAC_FRAME_H

#include <cstdint>

inline constexpr int32_t kAacFirstSamplingIndex = 3; // 48000 Hz
inline constexpr int32_t kAacLastSamplingIndex = 11; // 8000 Hz
inline constexpr int32_t kAacMostBands = 51;
inline constexpr int32_t kAacFrameLines = 1024;

// A decoder's input buffer holds 6144 bits for each channel.
inline constexpr int32_t kAacMostFrameBytes = 2 * 6144 / 8;

struct aac_channel_values {
    int32_t global_gain;
    bool has_tns;
    uint8_t codebook[kAacMostBands];
    int16_t scalefactor[kAacMostBands]; // noise energy in a noise band, 0 in a zero band
    int16_t quantised[kAacFrameLines];
};

struct aac_frame_values {
    int32_t channels;
    int32_t bands; // of each channel
    bool has_mid_side;
    aac_channel_values channel[2];
};

struct aac_frame {
    const char *fault; // the first one, as a noun without an article; null when there is none
    bool is_cut;       // the fault is the end of the bytes
    int32_t bytes;     // of the frame; 0 with a fault
    int32_t bits;      // up to the END element, its 3 bits included; with a fault, those read
    int32_t channels;
};

// Looks at the head of a frame alone.
// returns: the number of bands that it announces; 0 when no frame begins so
[[nodiscard]] int32_t announced_aac_bands(const uint8_t *bytes, int32_t count);

// returns: the number of bands that every frame has
[[nodiscard]] int32_t aac_bands_of(int32_t sampling_index);

// Reads the frame at the begin of `bytes`; more bytes may follow it.
// in: sampling_index: ISO/IEC 14496-3, Table 1.18; from kAacFirstSamplingIndex to the last one
// out: values: what the frame contains, of use only without a fault; may be null
[[nodiscard]] aac_frame read_aac_frame(const uint8_t *bytes, int32_t count, int32_t sampling_index,
                                       aac_frame_values *values);

#endif // RECOVERY_AAC_FRAME_H

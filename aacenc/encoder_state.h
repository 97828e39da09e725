// The encoder's records. All but the handle are in the handle's work block. Their fields have a
// fixed order.
#ifndef AACENC_ENCODER_STATE_H
#define AACENC_ENCODER_STATE_H

#include "aacenc/aac_enc.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

inline constexpr int32_t kFrameLines = AACENC_FRAME_SAMPLES; // spectral lines of a channel
inline constexpr int32_t kMaxChannels = 2;
inline constexpr int32_t kMaxBands = 51;         // scalefactor bands of a long window
inline constexpr int32_t kMaxTnsOrder = 12;      // Low Complexity, long window
inline constexpr int32_t kMaxChannelBits = 6144; // decoder input buffer, bits per channel
inline constexpr int32_t kReservoirBits = 8184;  // highest level of the bit reservoir
inline constexpr int32_t kAdtsHeaderBytes = 7;   // adts_frame() without CRC
inline constexpr int32_t kChannelBufferBytes = 8192;
inline constexpr int32_t kMaxCodewords = kChannelBufferBytes / sizeof(uint32_t);
inline constexpr uint8_t kOnlyLongSequence = 0; // window_sequence
inline constexpr uint8_t kSineWindow = 0;       // window_shape

// clang-format off

struct AacEncConfig {
    int32_t channels;
    int32_t sampleRate;     // Hz
    int32_t pns;
    int32_t tns;
    int32_t mpeg2Id;        // 0 or 1
    uint8_t outputFormat;   // AACENC_FORMAT_*
    int32_t bitRate;        // bit/s
};

// A bit writer, most significant bit first.
struct AacEncBitstream {
    uint8_t *bytes;
    int32_t freeBits;       // in the current byte, 1..8; 8 = nothing written to it
    int32_t byteIndex;      // of the current byte
};

// One TNS filter. Entry 0 of the reflection coefficients and of the indices is not used.
struct AacEncTnsFilter {
    int32_t order;
    int32_t direction;                       // always 0, upward
    int32_t coefCompress;                    // always 0
    int32_t length;                          // scalefactor bands
    int32_t directForm[kMaxTnsOrder + 1];    // Q29, [0] is 1.0
    int32_t reflection[kMaxTnsOrder + 1];    // Q28 from the recursion, Q29 once quantised
    int8_t index[kMaxTnsOrder + 1];          // -7..7
};

struct AacEncTns {
    int32_t active;         // tns_data_present
    int32_t minBand;        // first band of the filter range
    int32_t maxBands;       // end of the filter range
    int32_t maxOrder;
    int32_t nFilt;          // 0 or 1
    int32_t coefRes;        // bits of a coefficient
    AacEncTnsFilter filter;
};

// The contents of one channel's individual_channel_stream().
struct AacEncCoderInfo {
    int32_t codewordCount;               // entries of the codeword list
    uint8_t windowSequence;
    int32_t scalefactor[kMaxBands];      // 0 during the rate search
    int32_t swbOffset[kMaxBands + 1];    // lines, 0 first, 1024 last
    uint8_t codebook[kMaxBands];
    int32_t windowCount;
    int32_t globalGain;
    AacEncTns *tns;
    int32_t noiseEnergy[kMaxBands];
    int32_t noiseFlag[kMaxBands];
    const uint32_t *codewords;           // the codeword list
};

struct AacEncMsInfo {
    int32_t msMaskPresent;
    int32_t msUsed[kMaxBands];
};

// The syntax element of a channel.
struct AacEncChInfo {
    int32_t present;
    int32_t tag;            // element_instance_tag
    int32_t pair;           // 0 = single channel element
    int32_t commonWindow;
    int32_t firstOfPair;
    int32_t pairedChannel;
    AacEncMsInfo ms;
};

// The transform coder's state. A channel buffer holds 1024 spectral lines, then the 1024 samples of
// the previous frame. Once the lines are quantised, the codeword list overwrites the buffer from
// its start. The second work array is the upper half of the second channel buffer.
struct EncTfState {
    int32_t channels;
    int32_t samplingIndex;               // position in SampleRates
    int32_t sampleRate;                  // Hz
    int32_t lastGain;                    // of the channel coded last
    int32_t bwLines;                     // audio bandwidth in lines
    int32_t maxSfb;
    int32_t sfbTotal;
    uint8_t windowGroups;
    uint8_t windowSequence[kMaxChannels];
    uint8_t windowShape;
    AacEncBitstream *bitstream;
    AacEncChInfo *chInfo[kMaxChannels];
    AacEncCoderInfo *coderInfo[kMaxChannels];
    AacEncTns *tns[kMaxChannels];
    int32_t *channelBuffer[kMaxChannels];
    int32_t *work[2];                    // 1024 entries each
    uint8_t *heapNext;
    uint32_t heapUsed;                   // bytes from the start of the work block
    uint32_t frameCounter;               // frames encoded since init
    int32_t bitsLeft;                    // of this access unit, for the channels not coded yet
};

struct AacEncState {
    uint32_t totalBits;     // since init, modulo 2^32
    int32_t channels;
    int32_t meanBits;       // of a frame
    int32_t bitsAvailable;  // level of the bit reservoir
    int32_t midSide;        // always 0: no interface sets it
    int32_t tns;
    int32_t pns;
    const int16_t *pcm[kMaxChannels];
    uint8_t outputFormat;   // AACENC_FORMAT_*
    int32_t mpeg2Id;
    EncTfState *tfState;
};

struct AacEncHandle {
    AacEncState *state;
    const AacEncCallbacks *callbacks;
    AacEncConfig config;
    uint8_t *workBlock;
    int16_t *left;          // 1024 samples; only when the encoder splits interleaved pairs
    int16_t *right;         // likewise, two channels only
};

// clang-format on

static_assert(std::is_trivially_copyable_v<AacEncHandle> && std::is_aggregate_v<AacEncHandle>);
static_assert(std::is_trivially_copyable_v<AacEncState> && std::is_aggregate_v<AacEncState>);
static_assert(std::is_trivially_copyable_v<EncTfState> && std::is_aggregate_v<EncTfState>);
static_assert(kAdtsHeaderBytes + kMaxChannels * kMaxChannelBits / 8 < AACENC_OUTPUT_BYTES);

#endif // AACENC_ENCODER_STATE_H

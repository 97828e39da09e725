// Layout of the work block, and the settings derived once at init.
#ifndef AACENC_ENCODER_SETUP_H
#define AACENC_ENCODER_SETUP_H

#include "aacenc/encoder_state.h"

#include <cstddef>
#include <cstdint>

// Results of AACEnc_Init.
enum : int32_t {
    kInitBadConfig = -3,
    kInitBadSampleRate = -4,
};

// returns: bytes that AACEnc_malloc takes from the heap for a record
constexpr size_t heap_bytes(size_t size_bytes)
{
    constexpr size_t kAlign = sizeof(void *);
    return (size_bytes + kAlign) & ~(kAlign - 1);
}

// Bytes of the two states and of the allocations of EncTfInit and AACEnc_Init, which are always for
// two channels.
inline constexpr size_t kWorkBlockNeed =
    sizeof(AacEncState) + sizeof(EncTfState) +
    kMaxChannels * (heap_bytes(kChannelBufferBytes) + heap_bytes(sizeof(AacEncTns)) +
                    heap_bytes(sizeof(AacEncCoderInfo)) + heap_bytes(sizeof(AacEncChInfo))) +
    heap_bytes(kFrameLines * sizeof(int32_t)) + heap_bytes(sizeof(AacEncBitstream));

inline constexpr size_t kWorkBlockBytes = sizeof(void *) == 4 ? 25000 : kWorkBlockNeed;
static_assert(kWorkBlockNeed <= kWorkBlockBytes);
static_assert(sizeof(AacEncState) % alignof(EncTfState) == 0);
static_assert(sizeof(EncTfState) % sizeof(void *) == 0);

// Places the two states, cleared, and the empty heap at the start of the work block.
// returns: 0
[[nodiscard]] int32_t AACEnc_Create(AacEncHandle *handle, uint8_t *work_block);

// Checks the configuration and sets the encoder up for it.
// returns: 0, or kInitBadConfig for a bad bit rate or number of channels, or kInitBadSampleRate
[[nodiscard]] int32_t AACEnc_Init(AacEncState *state, const AacEncConfig *config);

// Allocates the transform coder's records and sets them up.
// in: config: its sample rate is one of SampleRates
// in: ignored: not read
void EncTfInit(const AacEncConfig *config, const void *ignored, EncTfState *tf);

// Takes cleared memory from the work block's heap; kWorkBlockBytes covers all allocations.
// returns: never null
[[nodiscard]] void *AACEnc_malloc(size_t size_bytes, EncTfState *tf);

// returns: audio bandwidth in Hz, 0 for an unknown sample rate
[[nodiscard]] int32_t AACENC_SetBandWidth(int32_t bit_rate_per_channel, int32_t sample_rate);

#endif // AACENC_ENCODER_SETUP_H

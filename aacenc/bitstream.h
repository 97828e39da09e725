// The bit writer: most significant bit first. It clears each byte when it reaches it.
#ifndef AACENC_BITSTREAM_H
#define AACENC_BITSTREAM_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Starts writing at `bytes` and clears the first byte.
void bitstream_start(AacEncBitstream *bitstream, uint8_t *bytes);

// Appends the `count` low bits of `value`.
// in: value: fits in `count` bits
// in: count: 0..32
// returns: 0
int32_t BsPutBit(AacEncBitstream *bitstream, uint32_t value, int32_t count);

// Appends a codeword list: entries with a length in bits 24..31 and a codeword in bits 0..23. An
// entry of length 0 writes nothing.
// returns: bits written
int32_t bitstream_put_entries(AacEncBitstream *bitstream, const uint32_t *entries, int32_t count);

// returns: bits written since the start
[[nodiscard]] int32_t AACENC_BsBufferNumBit(const AacEncBitstream *bitstream);

// Pads the current byte with zero bits when it is partly used.
void AACENC_ByteAlign(AacEncBitstream *bitstream);

#endif // AACENC_BITSTREAM_H

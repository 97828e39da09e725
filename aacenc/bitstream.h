// The bit writer: most significant bit first, into a byte buffer that needs clearing only in its
// first byte.
#ifndef AACENC_BITSTREAM_H
#define AACENC_BITSTREAM_H

#include <cstdint>

#include "aacenc/encoder_state.h"

// Starts writing at `bytes` and clears the first of them.
void bitstream_start(AacEncBitstream *bitstream, uint8_t *bytes);

// Appends the `count` low bits of `value`.
// in:      value  fits in `count` bits
//          count  0..32
// returns: 0
int32_t BsPutBit(AacEncBitstream *bitstream, uint32_t value, int32_t count);

// returns: bits written since the start
[[nodiscard]] int32_t AACENC_BsBufferNumBit(const AacEncBitstream *bitstream);

// Pads the current byte with zero bits when it is partly used.
void AACENC_ByteAlign(AacEncBitstream *bitstream);

#endif // AACENC_BITSTREAM_H

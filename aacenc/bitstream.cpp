#include "aacenc/bitstream.h"

#include "aacenc/fixed_point.h"

static void open_next_byte(AacEncBitstream *bitstream)
{
    bitstream->freeBits = 8;
    bitstream->bytes[++bitstream->byteIndex] = 0;
}

void bitstream_start(AacEncBitstream *bitstream, uint8_t *bytes)
{
    *bitstream = {.bytes = bytes, .freeBits = 8, .byteIndex = 0};
    bytes[0] = 0;
}

int32_t BsPutBit(AacEncBitstream *bitstream, uint32_t value, int32_t count)
{
    AACENC_CHECK(count >= 0 && count <= 32);
    AACENC_CHECK((static_cast<uint64_t>(value) >> count) == 0);
    while (count >= bitstream->freeBits) {
        count -= bitstream->freeBits;
        bitstream->bytes[bitstream->byteIndex] |= static_cast<uint8_t>(value >> count);
        open_next_byte(bitstream);
    }
    bitstream->freeBits -= count;
    bitstream->bytes[bitstream->byteIndex] |= static_cast<uint8_t>(value << bitstream->freeBits);
    return 0;
}

int32_t AACENC_BsBufferNumBit(const AacEncBitstream *bitstream)
{
    return bitstream->byteIndex * 8 + 8 - bitstream->freeBits;
}

void AACENC_ByteAlign(AacEncBitstream *bitstream)
{
    if (bitstream->freeBits != 8)
        open_next_byte(bitstream);
}

#include "aacenc/bitstream.h"

#include "aacenc/fixed_point.h"

static void open_next_byte(AacEncBitstream *bitstream)
{
    bitstream->freeBits = 8;
    bitstream->bytes[++bitstream->byteIndex] = 0;
}

static uint8_t *store_u32(uint8_t *out, uint32_t value)
{
    out[0] = static_cast<uint8_t>(value >> 24);
    out[1] = static_cast<uint8_t>(value >> 16);
    out[2] = static_cast<uint8_t>(value >> 8);
    out[3] = static_cast<uint8_t>(value);
    return out + 4;
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

int32_t bitstream_put_entries(AacEncBitstream *bitstream, const uint32_t *entries, int32_t count)
{
    const int32_t bits_before = AACENC_BsBufferNumBit(bitstream);
    uint8_t *out = bitstream->bytes + bitstream->byteIndex;
    uint32_t word = uint32_t{*out} >> bitstream->freeBits; // only its low bits are valid
    int32_t free_bits = 24 + bitstream->freeBits;
    for (const uint32_t *entry = entries; entry != entries + count; entry++) {
        const int32_t length = static_cast<int32_t>(*entry >> 24);
        const uint32_t code = *entry & 0xFFFFFF;
        AACENC_CHECK(length <= 24 && code >> length == 0);
        if (length < free_bits) [[likely]] {
            word = word << length | code;
            free_bits -= length;
        } else { // the word is partly used, because no entry fills an empty one
            const int32_t rest = length - free_bits;
            out = store_u32(out, word << free_bits | code >> rest);
            word = code;
            free_bits = 32 - rest;
        }
    }
    int32_t word_bits = 32 - free_bits;
    for (; word_bits >= 8; word_bits -= 8) {
        *out++ = static_cast<uint8_t>(word >> (word_bits - 8));
    }
    *out = static_cast<uint8_t>(word << (8 - word_bits));
    bitstream->freeBits = 8 - word_bits;
    bitstream->byteIndex = static_cast<int32_t>(out - bitstream->bytes);
    return AACENC_BsBufferNumBit(bitstream) - bits_before;
}

int32_t AACENC_BsBufferNumBit(const AacEncBitstream *bitstream)
{
    return bitstream->byteIndex * 8 + 8 - bitstream->freeBits;
}

void AACENC_ByteAlign(AacEncBitstream *bitstream)
{
    if (bitstream->freeBits != 8) {
        open_next_byte(bitstream);
    }
}

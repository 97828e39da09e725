#include "aacenc/bitstream.h"
#include "aacenc/element_syntax.h"
#include "tests/aacenc/encoder_harness.h"

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

// returns: the bits that a writer appends after `offset` bits, as digits
template <typename Write>
static std::string written_bits(Write write, int offset = 0)
{
    std::vector<uint8_t> bytes(4096, 0xFF); // the writer clears the bytes that it uses
    AacEncBitstream bitstream;
    bitstream_start(&bitstream, bytes.data());
    BsPutBit(&bitstream, 0, offset);
    write(&bitstream);
    std::string digits;
    for (int i = offset; i < AACENC_BsBufferNumBit(&bitstream); i++) {
        digits += static_cast<char>('0' + (bytes[static_cast<size_t>(i / 8)] >> (7 - i % 8) & 1));
    }
    return digits;
}

// Digits with blanks between the fields.
static std::string fields(std::string digits)
{
    std::erase(digits, ' ');
    return digits;
}

TEST(BitWriter, WritesEveryWidthAtEveryOffset)
{
    EXPECT_EQ(written_bits(AACENC_ByteAlign, 16), "");
    EXPECT_EQ(written_bits(AACENC_ByteAlign, 17), "0000000");
    for (int offset = 0; offset < 8; offset++) {
        for (int count = 0; count <= 32; count++) {
            const uint64_t value = 0xA5C39678U & ((uint64_t{1} << count) - 1);
            const auto put = [&](AacEncBitstream *bs) {
                EXPECT_EQ(BsPutBit(bs, static_cast<uint32_t>(value), count), 0);
            };
            const std::string digits = std::bitset<32>(value).to_string();
            EXPECT_EQ(written_bits(put, offset), digits.substr(32 - static_cast<size_t>(count)));
        }
    }
}

// returns: the end of the fill elements at the start of the digits; their bytes must be zero
static size_t end_of_fill_elements(const std::string &digits)
{
    size_t at = 0;
    while (digits.compare(at, 3, "110") == 0) { // id_syn_ele FIL
        size_t count = std::stoul(digits.substr(at + 3, 4), nullptr, 2);
        at += 7;
        if (count == 15) {
            count += std::stoul(digits.substr(at, 8), nullptr, 2) - 1;
            at += 8;
        }
        EXPECT_GE(digits.find('1', at), at + 8 * count);
        at += 8 * count;
    }
    return at;
}

TEST(BitWriter, FillElementsTakeAllButSixBits)
{
    for (int32_t bits = 0; bits < 3 * 8 * 270; bits++) {
        int32_t rest = 0;
        const std::string digits =
            written_bits([&](AacEncBitstream *bs) { rest = WriteAACFillBits(bs, bits); });
        ASSERT_EQ(end_of_fill_elements(digits), digits.size()) << bits;
        ASSERT_EQ(digits.size() + static_cast<size_t>(rest), static_cast<size_t>(bits));
        ASSERT_LT(rest, 7) << bits;
    }
}

struct Syntax : SilentChannel {
    void set_books(const std::vector<int> &books)
    {
        tf->maxSfb = static_cast<int32_t>(books.size());
        std::copy(books.begin(), books.end(), coder->codebook);
    }
};

// Expects the bits of a call that has `bs` and `write` among its arguments; also counts them.
#define EXPECT_BITS(call, expected)                                                                \
    do {                                                                                           \
        const auto writer = [&](AacEncBitstream *bs, int32_t write) { return call; };              \
        int32_t bits = 0;                                                                          \
        EXPECT_EQ(written_bits([&](AacEncBitstream *bs) { bits = writer(bs, 1); }),                \
                  fields(expected));                                                               \
        EXPECT_EQ(bits, static_cast<int32_t>(fields(expected).size()));                            \
        EXPECT_EQ(writer(nullptr, 0), bits);                                                       \
    } while (0)

TEST_F(Syntax, ScalefactorsAndNoiseEnergiesAreDifferences)
{
    coder->globalGain = 150;
    std::fill_n(coder->scalefactor, 4, 150);
    set_books({1, 0, 11, 3});
    EXPECT_BITS(write_scalefactor_bitstream(bs, write, coder, tf), "0 0 0");
    coder->scalefactor[2] = 149; // down and up by one
    EXPECT_BITS(write_scalefactor_bitstream(bs, write, coder, tf), "0 100 1010");
    coder->scalefactor[2] = 271; // no codeword for 121
    EXPECT_BITS(write_scalefactor_bitstream(bs, write, coder, tf), "0");
    set_books({13, 5, 13, 13});
    coder->noiseEnergy[0] = 40;
    coder->noiseEnergy[2] = 41;
    coder->noiseEnergy[3] = 41;
    EXPECT_BITS(write_scalefactor_bitstream(bs, write, coder, tf),
                "010010010 0 1010 0"); // 40 - 150 + 256 = 146
}

TEST_F(Syntax, TnsDataHoldsOneFilter)
{
    AacEncTns *record = coder->tns;
    EXPECT_BITS(WriteTNSData(coder, bs, write), "0");
    *record = {.active = 1, .nFilt = 0, .coefRes = 4};
    EXPECT_BITS(WriteTNSData(coder, bs, write), "1 00");
    record->nFilt = 1;
    record->filter = {.length = 33};
    EXPECT_BITS(WriteTNSData(coder, bs, write), "1 01 1 100001 00000");
    record->filter = {.order = 3, .length = 33, .index = {0, -7, 0, 7}};
    EXPECT_BITS(WriteTNSData(coder, bs, write), "1 01 1 100001 00011 0 0 1001 0000 0111");
}

TEST(Frame, SilenceIsOneEmptySection)
{
    // SCE, tag 0 | global_gain 151 | ics_info, 49 bands | book 0, 31 + 18 bands | flags | END
    const std::vector<uint8_t> expected = {0x01, 0x2E, 0x18, 0x83, 0xF2, 0x1C};
    Encoder encoder(EncoderOptions{.channels = 1, .bit_rate = 64000});
    EXPECT_EQ(encoder.encode(render(tone(0, 0), 1, 1).data()), expected);
}

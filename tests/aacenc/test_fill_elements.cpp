#include "aacenc/bitstream.h"
#include "aacenc/element_syntax.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

// out: rest: the bits that are not filled
// returns: the bits that are written, as digits
static std::string fill_bits(int32_t bits, int32_t *rest)
{
    std::vector<uint8_t> bytes(4096, 0xFF); // the writer clears the bytes that it uses
    AacEncBitstream bitstream;
    bitstream_start(&bitstream, bytes.data());
    *rest = WriteAACFillBits(&bitstream, bits);
    std::string digits;
    for (int i = 0; i < AACENC_BsBufferNumBit(&bitstream); i++) {
        digits += static_cast<char>('0' + (bytes[static_cast<size_t>(i / 8)] >> (7 - i % 8) & 1));
    }
    return digits;
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

TEST(FillElements, TakeAllButSixBits)
{
    for (int32_t bits = 0; bits < 3 * 8 * 270; bits++) {
        int32_t rest = 0;
        const std::string digits = fill_bits(bits, &rest);
        ASSERT_EQ(end_of_fill_elements(digits), digits.size()) << bits;
        ASSERT_EQ(digits.size() + static_cast<size_t>(rest), static_cast<size_t>(bits));
        ASSERT_LT(rest, 7) << bits;
    }
}

#include "aacenc/noiseless_coding.h"

#include <algorithm>
#include <cstdlib>

#include "aacenc/encoder_state.h"
#include "aacenc/fixed_point.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/quantiser.h"

static constexpr int32_t kEscapeMark = 16; // stands in the codeword for a value with an escape

// Bits of the two codebooks of a class, the odd-numbered one first.
struct ClassBits {
    int32_t low;
    int32_t high;
};

// Index of the codeword for kGroup values in a codebook of kBase values each. Signed codebooks hold
// the signs in the codeword and have their zero in the middle.
template <int32_t kGroup, int32_t kBase, bool kSigned>
static int32_t codeword_index(const int32_t *values)
{
    int32_t index = 0;
    for (int32_t i = 0; i < kGroup; i++)
        index = index * kBase + (kSigned ? values[i] : std::abs(values[i]));
    return kSigned ? index + 40 : index;
}

static int32_t codeword_bits(uint32_t entry)
{
    return static_cast<int32_t>(entry >> 24);
}

static int32_t escape_prefix(int32_t magnitude)
{
    return AACENC_LOG2(static_cast<uint32_t>(magnitude)) - 4;
}

static int32_t escape_bits(int32_t magnitude)
{
    return magnitude < kEscapeMark ? 0 : 2 * escape_prefix(magnitude) + 5;
}

static int32_t escape_index(const int32_t *values)
{
    return std::min(std::abs(values[0]), kEscapeMark) * 17 +
           std::min(std::abs(values[1]), kEscapeMark);
}

template <int32_t kGroup, int32_t kBase, bool kSigned>
static ClassBits count_class(const uint32_t *low, const uint32_t *high, const int32_t *values,
                             int32_t count)
{
    ClassBits bits = {0, 0};
    int32_t signs = 0;
    for (int32_t k = 0; k < count; k += kGroup) {
        const int32_t index = codeword_index<kGroup, kBase, kSigned>(values + k);
        bits.low += codeword_bits(low[index]);
        bits.high += codeword_bits(high[index]);
        for (int32_t i = 0; !kSigned && i < kGroup; i++)
            signs += values[k + i] != 0;
    }
    return {bits.low + signs, bits.high + signs};
}

static int32_t count_escape_book(const int32_t *values, int32_t count)
{
    int32_t bits = 0;
    for (int32_t k = 0; k < count; k += 2) {
        bits += codeword_bits(huff11[escape_index(values + k)]);
        for (int32_t i = k; i < k + 2; i++)
            bits += (values[i] != 0) + escape_bits(std::abs(values[i]));
    }
    return bits;
}

// The class of a codebook is named by its odd-numbered member.
static ClassBits class_bits(int32_t odd_book, const int32_t *values, int32_t count)
{
    switch (odd_book) {
    case 1:
        return count_class<4, 3, true>(huff1, huff2, values, count);
    case 3:
        return count_class<4, 3, false>(huff3, huff4, values, count);
    case 5:
        return count_class<2, 9, true>(huff5, huff6, values, count);
    case 7:
        return count_class<2, 8, false>(huff7, huff8, values, count);
    case 9:
        return count_class<2, 13, false>(huff9, huff10, values, count);
    case kEscapeBook:
        return {count_escape_book(values, count), 0};
    default:
        return {0, 0};
    }
}

static uint8_t odd_book_for(int32_t max)
{
    return max <= 1 ? 1 : max <= 2 ? 3 : max <= 4 ? 5 : max <= 7 ? 7 : max <= 12 ? 9 : kEscapeBook;
}

BookChoice choose_codebook(const int32_t *values, int32_t count, int32_t max)
{
    if (max == 0)
        return {kZeroBook, 0};
    const uint8_t book = odd_book_for(max);
    const ClassBits bits = class_bits(book, values, count);
    if (book == kEscapeBook || bits.low <= bits.high)
        return {book, bits.low};
    return {static_cast<uint8_t>(book + 1), bits.high};
}

int32_t output_bits_check(int32_t book, const int32_t *values, int32_t count)
{
    if (book < 1 || book > kEscapeBook)
        return 0;
    const ClassBits bits = class_bits((book - 1) | 1, values, count);
    return book % 2 != 0 ? bits.low : bits.high;
}

static uint32_t *pack_signs(const int32_t *values, int32_t count, uint32_t *out)
{
    for (int32_t i = 0; i < count; i++)
        if (values[i] != 0)
            *out++ = 1U << 24 | (values[i] < 0 ? 1U : 0U);
    return out;
}

static uint32_t *pack_escape(int32_t magnitude, uint32_t *out)
{
    if (magnitude < kEscapeMark)
        return out;
    AACENC_CHECK(magnitude <= kMaxQuantised);
    const int32_t prefix = escape_prefix(magnitude);
    const int32_t ones = ((1 << prefix) - 1) << (prefix + 5);
    const int32_t low_bits = magnitude - (1 << (prefix + 4));
    *out++ = static_cast<uint32_t>(escape_bits(magnitude)) << 24 |
             static_cast<uint32_t>(ones + low_bits);
    return out;
}

template <int32_t kGroup, int32_t kBase, bool kSigned>
static uint32_t *pack_class(const uint32_t *table, const int32_t *values, int32_t count,
                            uint32_t *out)
{
    for (int32_t k = 0; k < count; k += kGroup) {
        *out++ = table[codeword_index<kGroup, kBase, kSigned>(values + k)];
        if (!kSigned)
            out = pack_signs(values + k, kGroup, out);
    }
    return out;
}

static uint32_t *pack_escape_book(const int32_t *values, int32_t count, uint32_t *out)
{
    for (int32_t k = 0; k < count; k += 2) {
        *out++ = huff11[escape_index(values + k)];
        out = pack_signs(values + k, 2, out);
        out = pack_escape(std::abs(values[k]), out);
        out = pack_escape(std::abs(values[k + 1]), out);
    }
    return out;
}

int32_t count_codewords(int32_t book, const int32_t *values, int32_t count)
{
    if (book < 1 || book > kEscapeBook)
        return 1;
    int32_t entries = count / (book <= 4 ? 4 : 2);
    const bool has_signs = book >= 7 || book == 3 || book == 4;
    for (int32_t k = 0; has_signs && k < count; k++) {
        entries += values[k] != 0;
        entries += book == kEscapeBook && std::abs(values[k]) >= kEscapeMark;
    }
    return entries;
}

uint32_t *pack_codewords(int32_t book, const int32_t *values, int32_t count, uint32_t *out)
{
    switch (book) {
    case 1:
    case 2:
        return pack_class<4, 3, true>(huff_table[book - 1], values, count, out);
    case 3:
    case 4:
        return pack_class<4, 3, false>(huff_table[book - 1], values, count, out);
    case 5:
    case 6:
        return pack_class<2, 9, true>(huff_table[book - 1], values, count, out);
    case 7:
    case 8:
        return pack_class<2, 8, false>(huff_table[book - 1], values, count, out);
    case 9:
    case 10:
        return pack_class<2, 13, false>(huff_table[book - 1], values, count, out);
    case kEscapeBook:
        return pack_escape_book(values, count, out);
    default:
        *out++ = 0;
        return out;
    }
}

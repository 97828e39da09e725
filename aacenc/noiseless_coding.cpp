#include "aacenc/noiseless_coding.h"

#include "aacenc/codebook_bits.h"
#include "aacenc/encoder_state.h"
#include "aacenc/fixed_point.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/quantiser.h"

#include <algorithm>
#include <cstdlib>

static constexpr int32_t kEscapeMark = 16; // in a codeword: the value is in an escape
static constexpr int32_t kEscapeBase = kEscapeMark + 1;
static constexpr int32_t kSignedZero = 40; // index of all zeros in a signed codebook

namespace {

// Bits of the two codebooks of a class.
struct book_bits {
    int32_t odd;
    int32_t even;
};

} // namespace

// returns: index of the codeword for kGroup values of kBase possible ones each; the index of a
// signed codebook includes the signs
template <int32_t kGroup, int32_t kBase, bool kSigned>
static int32_t codeword_index(const int32_t *values)
{
    int32_t index = 0;
    for (int32_t i = 0; i < kGroup; i++) {
        index = index * kBase + (kSigned ? values[i] : std::abs(values[i]));
    }
    return kSigned ? index + kSignedZero : index;
}

static int32_t escape_prefix(int32_t magnitude)
{
    return AACENC_LOG2(static_cast<uint32_t>(magnitude)) - 4;
}

static int32_t escape_bits(int32_t magnitude)
{
    return magnitude < kEscapeMark ? 0 : 2 * escape_prefix(magnitude) + 5;
}

static int32_t escape_index(int32_t first, int32_t second)
{
    return std::min(first, kEscapeMark) * kEscapeBase + std::min(second, kEscapeMark);
}

// Sums the bits of both codebooks in the halves of one word; 1024 lines do not fill a half.
template <int32_t kGroup, int32_t kBase, bool kSigned>
static book_bits count_class(const uint32_t *class_table, const int32_t *values, int32_t count)
{
    uint32_t bits = 0;
    for (int32_t k = 0; k < count; k += kGroup) {
        bits += class_table[codeword_index<kGroup, kBase, kSigned>(values + k)];
    }
    return {static_cast<int32_t>(bits & 0xFFFF), static_cast<int32_t>(bits >> 16)};
}

static int32_t count_escape_book(const int32_t *values, int32_t count)
{
    int32_t bits = 0;
    for (int32_t k = 0; k < count; k += 2) {
        const int32_t first = std::abs(values[k]);
        const int32_t second = std::abs(values[k + 1]);
        bits += bits11[escape_index(first, second)] + escape_bits(first) + escape_bits(second);
    }
    return bits;
}

// in: odd_book: the odd-numbered codebook of the class
static book_bits class_bits(int32_t odd_book, const int32_t *values, int32_t count)
{
    switch (odd_book) {
    case 1:
        return count_class<4, 3, true>(bits1_2, values, count);
    case 3:
        return count_class<4, 3, false>(bits3_4, values, count);
    case 5:
        return count_class<2, 9, true>(bits5_6, values, count);
    case 7:
        return count_class<2, 8, false>(bits7_8, values, count);
    case 9:
        return count_class<2, 13, false>(bits9_10, values, count);
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

book_choice choose_codebook(const int32_t *values, int32_t count, int32_t max)
{
    if (max == 0) {
        return {kZeroBook, 0};
    }
    const uint8_t book = odd_book_for(max);
    const book_bits bits = class_bits(book, values, count);
    if (book == kEscapeBook || bits.odd <= bits.even) {
        return {book, bits.odd};
    }
    return {static_cast<uint8_t>(book + 1), bits.even};
}

int32_t output_bits_check(int32_t book, const int32_t *values, int32_t count)
{
    if (book < 1 || book > kEscapeBook) {
        return 0;
    }
    const book_bits bits = class_bits((book - 1) | 1, values, count);
    return book % 2 != 0 ? bits.odd : bits.even;
}

static uint32_t *pack_signs(const int32_t *values, int32_t count, uint32_t *out)
{
    for (int32_t i = 0; i < count; i++) {
        *out = 1U << 24 | (values[i] < 0 ? 1U : 0U); // overwritten when the value is 0
        out += values[i] != 0 ? 1 : 0;
    }
    return out;
}

static uint32_t *pack_escape(int32_t magnitude, uint32_t *out)
{
    if (magnitude < kEscapeMark) {
        return out;
    }
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
        if (!kSigned) {
            out = pack_signs(values + k, kGroup, out);
        }
    }
    return out;
}

static uint32_t *pack_escape_book(const int32_t *values, int32_t count, uint32_t *out)
{
    for (int32_t k = 0; k < count; k += 2) {
        *out++ = huff11[escape_index(std::abs(values[k]), std::abs(values[k + 1]))];
        out = pack_signs(values + k, 2, out);
        out = pack_escape(std::abs(values[k]), out);
        out = pack_escape(std::abs(values[k + 1]), out);
    }
    return out;
}

int32_t count_codewords(int32_t book, const int32_t *values, int32_t count)
{
    if (book < 1 || book > kEscapeBook) {
        return 1;
    }
    int32_t entries = count / (book <= 4 ? 4 : 2);
    const bool has_signs = book >= 7 || book == 3 || book == 4;
    for (int32_t k = 0; has_signs && k < count; k++) {
        entries += values[k] != 0 ? 1 : 0;
        entries += book == kEscapeBook && std::abs(values[k]) >= kEscapeMark ? 1 : 0;
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

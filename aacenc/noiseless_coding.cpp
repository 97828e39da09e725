#include "aacenc/noiseless_coding.h"

#include "aacenc/codebook_bits.h"
#include "aacenc/encoder_state.h"
#include "aacenc/fixed_point.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/quantiser.h"
#include "aacenc/quantiser_vector.h"

#include <algorithm>
#include <cstdlib>

// Bits of the two codebooks of a class: of the odd-numbered one in the low half of a word. 1024
// lines do not fill a half.
using class_bits = uint32_t;

static int32_t odd_bits(class_bits bits)
{
    return static_cast<int32_t>(bits & 0xFFFF);
}

static int32_t even_bits(class_bits bits)
{
    return static_cast<int32_t>(bits >> 16);
}

namespace {

// The lines of a band whose largest value is 1, or 2. They are quantised by comparison.
struct ones_lines : band_lines {};
struct twos_lines : band_lines {};

} // namespace

static int32_t magnitude_of(const int32_t *values, int32_t k)
{
    return std::abs(values[k]);
}

static int32_t magnitude_of(const band_lines &lines, int32_t k)
{
    return quantise_power(lines.power[k], lines.step.factor_q32);
}

// returns: 1 if line >= least, else 0; without a branch or a flag
// in: line, least: magnitudes below 2^30, as those of all values up to 2 are
static int32_t reaches(int32_t line, int32_t least)
{
    return static_cast<int32_t>(static_cast<uint32_t>(least - 1 - line) >> 31);
}

static int32_t magnitude_of(const twos_lines &lines, int32_t k)
{
    const int32_t magnitude = std::abs(lines.spectrum[k]);
    return reaches(magnitude, lines.step.least_one) + reaches(magnitude, lines.step.least_two);
}

static int32_t value_of(const int32_t *values, int32_t k)
{
    return values[k];
}

static int32_t value_of(const ones_lines &lines, int32_t k)
{
    const int32_t line = lines.spectrum[k];
    return reaches(line, lines.step.least_one) - reaches(-line, lines.step.least_one);
}

template <typename Lines>
static int32_t value_of(const Lines &lines, int32_t k)
{
    const int32_t sign = lines.spectrum[k] >> 31; // 0 or -1
    return (magnitude_of(lines, k) ^ sign) - sign;
}

// returns: index of the codeword for kGroup lines of kBase possible values each; the index of a
// signed codebook includes the signs
template <int32_t kGroup, int32_t kBase, bool kSigned, typename Lines>
static int32_t codeword_index(const Lines &lines, int32_t k)
{
    int32_t index = 0;
    for (int32_t i = k; i < k + kGroup; i++) {
        index = index * kBase + (kSigned ? value_of(lines, i) : magnitude_of(lines, i));
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

template <int32_t kGroup, int32_t kBase, bool kSigned, typename Entry, typename Lines>
static class_bits count_class(const Entry *class_table, Lines lines, int32_t count)
{
    class_bits bits = 0;
    for (int32_t k = 0; k < count; k += 4) {
        for (int32_t group = k; group < k + 4; group += kGroup) {
            bits += class_table[codeword_index<kGroup, kBase, kSigned>(lines, group)];
        }
    }
    return bits;
}

template <typename Lines>
static class_bits count_escape_book(Lines lines, int32_t count)
{
    int32_t bits = 0;
    for (int32_t k = 0; k < count; k += 2) {
        const int32_t first = magnitude_of(lines, k);
        const int32_t second = magnitude_of(lines, k + 1);
        if ((first | second) < kEscapeMark) {
            bits += bits11[first * kEscapeBase + second];
        } else {
            bits += bits11[escape_index(first, second)] + escape_bits(first) + escape_bits(second);
        }
    }
    return static_cast<uint32_t>(bits) | kNoPartner;
}

// in: ones, twos: the same lines, for the codebooks of values up to 1 and 2
// in: odd_book: the odd-numbered codebook of the class
template <typename Ones, typename Twos, typename Lines>
static class_bits count_bits(int32_t odd_book, const Ones &ones, const Twos &twos,
                             const Lines &lines, int32_t count)
{
    switch (odd_book) {
    case 1:
        return count_class<4, 3, true>(bits1_2, ones, count);
    case 3:
        return count_class<4, 3, false>(bits3_4, twos, count);
    case 5:
        return count_class<2, 9, true>(bits5_6, lines, count);
    case 7:
        return count_class<2, 8, false>(bits7_8, lines, count);
    case 9:
        return count_class<2, 13, false>(bits9_10, lines, count);
    default:
        return count_escape_book(lines, count);
    }
}

// The odd-numbered codebook of a largest magnitude.
static constexpr uint8_t kOddBook[14] = {1, 1, 3, 5, 5, 7, 7, 7, 9, 9, 9, 9, 9, kEscapeBook};

// returns: the bits of the shorter codebook
static int32_t shorter_book(uint8_t odd_book, class_bits bits, uint8_t *book)
{
    const bool even = even_bits(bits) < odd_bits(bits);
    *book = static_cast<uint8_t>(odd_book + (even ? 1 : 0));
    return even ? even_bits(bits) : odd_bits(bits);
}

template <typename Lines>
static void quantise_all(Lines lines, int32_t count, int32_t *quantised)
{
    for (int32_t k = 0; k < count; k += 4) {
        for (int32_t i = k; i < k + 4; i++) {
            quantised[i] = value_of(lines, i);
        }
    }
}

void quantise_lines(const band_lines &lines, int32_t count, int32_t max, int32_t *quantised)
{
    if (max <= 1) {
        quantise_all(ones_lines{lines}, count, quantised);
    } else if (max == 2) {
        quantise_all(twos_lines{lines}, count, quantised);
    } else {
        quantise_all(lines, count, quantised);
    }
}

int32_t choose_codebook(const band_lines &lines, int32_t count, int32_t max, uint8_t *book)
{
    const uint8_t odd_book = kOddBook[std::min(max, 13)];
    return shorter_book(
        odd_book, count_bits(odd_book, ones_lines{lines}, twos_lines{lines}, lines, count), book);
}

int32_t choose_codebook_vector(const band_lines &lines, int32_t count, int32_t max, uint8_t *book)
{
    const uint8_t odd_book = kOddBook[std::min(max, 13)];
    return shorter_book(odd_book, count_bits_vector(lines, count, odd_book), book);
}

int32_t output_bits_check(int32_t book, const int32_t *values, int32_t count)
{
    if (book < 1 || book > kEscapeBook) {
        return 0;
    }
    const class_bits bits = count_bits((book - 1) | 1, values, values, values, count);
    return book % 2 != 0 ? odd_bits(bits) : even_bits(bits);
}

// returns: the entries of the list with the sign of a value that is not 0
static size_t pack_sign(int32_t value, uint32_t *list, size_t entries)
{
    list[entries] = 1U << 24 | static_cast<uint32_t>(value) >> 31;    // overwritten for the value 0
    return entries + (static_cast<uint32_t>(-std::abs(value)) >> 31); // 1 without a flag
}

static size_t pack_escape(int32_t magnitude, uint32_t *list, size_t entries)
{
    if (magnitude < kEscapeMark) {
        return entries;
    }
    AACENC_CHECK(magnitude <= kMaxQuantised);
    const int32_t prefix = escape_prefix(magnitude);
    const int32_t ones = ((1 << prefix) - 1) << (prefix + 5);
    const int32_t low_bits = magnitude - (1 << (prefix + 4));
    list[entries] = static_cast<uint32_t>(escape_bits(magnitude)) << 24 |
                    static_cast<uint32_t>(ones + low_bits);
    return entries + 1;
}

template <int32_t kGroup, int32_t kBase, bool kSigned>
static uint32_t *pack_class(const uint32_t *table, const int32_t *values, int32_t count,
                            uint32_t *list)
{
    size_t entries = 0;
    for (int32_t k = 0; k < count; k += kGroup) {
        int32_t group[4]; // in registers while the entries are written
        for (int32_t i = 0; i < kGroup; i++) {
            group[i] = values[k + i];
        }
        list[entries++] = table[codeword_index<kGroup, kBase, kSigned>(group, 0)];
        for (int32_t i = 0; !kSigned && i < kGroup; i++) {
            entries = pack_sign(group[i], list, entries);
        }
    }
    return list + entries;
}

static uint32_t *pack_escape_book(const int32_t *values, int32_t count, uint32_t *list)
{
    size_t entries = 0;
    for (int32_t k = 0; k < count; k += 2) {
        const int32_t first = std::abs(values[k]);
        const int32_t second = std::abs(values[k + 1]);
        const bool escapes = (first | second) >= kEscapeMark;
        list[entries++] =
            huff11[escapes ? escape_index(first, second) : first * kEscapeBase + second];
        entries = pack_sign(values[k], list, entries);
        entries = pack_sign(values[k + 1], list, entries);
        if (escapes) {
            entries = pack_escape(first, list, entries);
            entries = pack_escape(second, list, entries);
        }
    }
    return list + entries;
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

#include "recovery/aac_codewords.h"

#include "aacenc/huffman_tables.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <span>

static std::span<const uint32_t> get_codebook(uint32_t book)
{
    static constexpr uint16_t kCodes[kAacScalefactorBook] = {81, 81, 81,  81,  81,  81,
                                                             64, 64, 169, 169, 289, 121};
    return {book == kAacScalefactorBook ? huff12 : huff_table[book - 1], kCodes[book - 1]};
}

static aac_codeword make_word(uint32_t index, uint32_t bits, uint32_t signs)
{
    return {.bits = bits & 0x1F, .index = index & 0x7FF, .signs = signs & 0xF};
}

// Describes a codeword by its values.
static aac_codeword describe_codeword(uint32_t book, uint32_t index, uint32_t length)
{
    if (book == kAacScalefactorBook) {
        return make_word(index, length, 0);
    }
    int32_t values[4];
    const int32_t count = get_aac_values(book, index, values);
    uint32_t signs = 0;
    uint32_t largest = 0;
    uint32_t escapes = 0;
    for (int32_t i = 0; i < count; i++) {
        const uint32_t magnitude = static_cast<uint32_t>(std::abs(values[i]));
        largest = std::max(largest, magnitude);
        signs += magnitude != 0 && !is_signed_aac_book(book) ? 1U : 0U;
        escapes |= book == kEscapeBook && magnitude == kAacEscapeMark ? 1U << i : 0U;
    }
    aac_codeword word = make_word(index, length + signs, signs);
    word.largest = largest & 0x1F;
    word.escapes = escapes & 3;
    return word;
}

// Fills the entries of a table of 2^table_bits whose first bits are those of the codeword.
static void fill_entries(aac_codeword *table, uint32_t table_bits, uint32_t code, uint32_t length,
                         const aac_codeword &word)
{
    const uint32_t free_bits = table_bits - length;
    std::fill_n(table + (code << free_bits), size_t{1} << free_bits, word);
}

int32_t get_aac_values(uint32_t book, uint32_t index, int32_t *values)
{
    static constexpr int32_t kBases[kAacScalefactorBook] = {0, 3, 3, 3, 3, 9, 9, 8, 8, 13, 13, 17};
    const int32_t base = kBases[book];
    const int32_t count = book <= 4 ? 4 : 2;
    int32_t rest = static_cast<int32_t>(index);
    for (int32_t i = count - 1; i >= 0; i--, rest /= base) {
        values[i] = rest % base - (is_signed_aac_book(book) ? base / 2 : 0);
    }
    return count;
}

// Gives each longer codeword's first bits a branch for the longest codeword that begins so.
static uint32_t make_branches(std::span<const uint32_t> codebook, aac_codeword *roots,
                              uint32_t used_entries)
{
    for (const uint32_t entry : codebook) {
        const uint32_t length = entry >> 24;
        if (length > kAacRootBits) {
            const uint32_t rest_bits = length - kAacRootBits;
            aac_codeword &root = roots[(entry & 0xFFFFFF) >> rest_bits];
            root = make_word(0, kAacBranch, std::max<uint32_t>(root.signs, rest_bits));
        }
    }
    for (uint32_t i = 0; i < 1U << kAacRootBits; i++) {
        if (roots[i].bits == kAacBranch) {
            roots[i] = make_word(used_entries, kAacBranch, roots[i].signs);
            used_entries += 1U << roots[i].signs;
        }
    }
    assert(used_entries <= kAacBranchEntries);
    return used_entries;
}

static void add_codewords(uint32_t book, std::span<const uint32_t> codebook,
                          aac_codeword_tables *tables)
{
    aac_codeword *const roots = tables->roots[book];
    for (size_t index = 0; index < codebook.size(); index++) {
        const uint32_t code = codebook[index] & 0xFFFFFF;
        const uint32_t length = codebook[index] >> 24;
        const aac_codeword word = describe_codeword(book, static_cast<uint32_t>(index), length);
        if (length <= kAacRootBits) {
            fill_entries(roots, kAacRootBits, code, length, word);
        } else {
            const uint32_t rest_bits = length - kAacRootBits;
            const aac_codeword &root = roots[code >> rest_bits];
            fill_entries(tables->branches + root.index, root.signs, code & ((1U << rest_bits) - 1),
                         rest_bits, word);
        }
    }
}

const aac_codeword_tables *get_aac_codewords()
{
    static aac_codeword_tables tables;
    [[maybe_unused]] static const bool is_made = [] {
        uint32_t used_entries = 0;
        for (uint32_t book = 1; book <= kAacScalefactorBook; book++) {
            used_entries = make_branches(get_codebook(book), tables.roots[book], used_entries);
            add_codewords(book, get_codebook(book), &tables);
        }
        return true;
    }();
    return &tables;
}

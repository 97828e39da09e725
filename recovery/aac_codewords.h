// Tables that find the codeword at the begin of some bits.
#ifndef RECOVERY_AAC_CODEWORDS_H
#define RECOVERY_AAC_CODEWORDS_H

#include <cstdint>

inline constexpr uint32_t kAacScalefactorBook = 12; // number of the scalefactor codebook
inline constexpr uint32_t kAacRootBits = 9;         // of the first look
inline constexpr uint32_t kAacEscapeMark = 16;      // a value of the escape codebook

// What an entry says about its codeword. All codebooks are complete: each entry is of a codeword.
struct aac_codeword {
    uint32_t bits : 5;    // with the sign bits after it; of a longer codeword: kAacBranch
    uint32_t index : 11;  // in the codebook; of a longer codeword: the first entry of its branch
    uint32_t signs : 4;   // sign bits; of a longer codeword: bits of the second look
    uint32_t largest : 5; // magnitude of its values
    uint32_t escapes : 2; // bits 0 and 1: the first, the second value is in an escape
};
inline constexpr uint32_t kAacBranch = 31;
inline constexpr uint32_t kAacBranchEntries = 1754; // of all longer codewords
inline constexpr int32_t kAacMostWordBits = 20;     // with its signs

struct aac_codeword_tables {
    aac_codeword roots[kAacScalefactorBook + 1][1U << kAacRootBits]; // by codebook; 0 is empty
    aac_codeword branches[kAacBranchEntries];
};

// returns: the tables, made by the first call
// thread: any
[[nodiscard]] const aac_codeword_tables *get_aac_codewords();

// in: book: 1 to kAacScalefactorBook
// in: bits: the next bits, the first one highest
[[nodiscard]] inline const aac_codeword *find_aac_codeword(const aac_codeword_tables *tables,
                                                           uint32_t book, uint64_t bits)
{
    const aac_codeword *const root = &tables->roots[book][bits >> (64 - kAacRootBits)];
    if (root->bits != kAacBranch) {
        return root;
    }
    return &tables->branches[root->index + (bits << kAacRootBits >> (64 - root->signs))];
}

[[nodiscard]] inline bool is_signed_aac_book(uint32_t book)
{
    return book == 1 || book == 2 || book == 5 || book == 6;
}

// out: values: the two or four values of a spectral codeword, without the signs that follow it
// returns: their number
int32_t get_aac_values(uint32_t book, uint32_t index, int32_t *values);

#endif // RECOVERY_AAC_CODEWORDS_H

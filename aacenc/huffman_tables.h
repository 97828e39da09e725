// Huffman codebooks. An entry holds the length of its codeword in bits 24..31 and the codeword,
// right-aligned, in bits 0..23. The comments give the index of a codeword.
// source: ISO/IEC 14496-3, Tables 4.A.1 to 4.A.12
#ifndef AACENC_HUFFMAN_TABLES_H
#define AACENC_HUFFMAN_TABLES_H

#include <cstdint>

// Codebooks with a meaning of their own.
inline constexpr uint8_t kZeroBook = 0;
inline constexpr uint8_t kEscapeBook = 11;
inline constexpr uint8_t kNoiseBook = 13;
inline constexpr uint8_t kIntensityBook2 = 14;
inline constexpr uint8_t kIntensityBook = 15;

// signed quadruples, -1..1: ((a * 3 + b) * 3 + c) * 3 + d + 40
extern const uint32_t huff1[81];
extern const uint32_t huff2[81];

// unsigned quadruples, 0..2: ((a * 3 + b) * 3 + c) * 3 + d
extern const uint32_t huff3[81];
extern const uint32_t huff4[81];

// signed pairs, -4..4: a * 9 + b + 40
extern const uint32_t huff5[81];
extern const uint32_t huff6[81];

// unsigned pairs, 0..7: a * 8 + b
extern const uint32_t huff7[64];
extern const uint32_t huff8[64];

// unsigned pairs, 0..12: a * 13 + b
extern const uint32_t huff9[169];
extern const uint32_t huff10[169];

// unsigned pairs, 0..16, 16 = escape: a * 17 + b
extern const uint32_t huff11[289];

// Scalefactors: difference + 60.
inline constexpr int32_t kScalefactorZero = 60; // index of difference 0
inline constexpr int32_t kScalefactorCodes = 121;
extern const uint32_t huff12[121];

// The spectral codebooks; codebook n is entry n - 1.
extern const uint32_t *const huff_table[11];

#endif // AACENC_HUFFMAN_TABLES_H

// Lengths of the codewords of the spectral codebooks, with their sign bits but without escapes. One
// entry serves two codebooks of the same indices: bits 0..15 hold the length in the odd-numbered
// one, bits 16..31 that in the even-numbered one.
#ifndef AACENC_CODEBOOK_BITS_H
#define AACENC_CODEBOOK_BITS_H

#include <cstdint>

extern const uint32_t bits1_2[81];
extern const uint32_t bits3_4[81];
extern const uint32_t bits5_6[81];
extern const uint32_t bits7_8[64];
extern const uint32_t bits9_10[169];

// Book 11 has no partner. Three more entries are for loads of four.
extern const uint8_t bits11[289 + 3];

#endif // AACENC_CODEBOOK_BITS_H

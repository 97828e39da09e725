// What the codewords of the spectral codebooks cost, their signs included and escapes not. The two
// codebooks of a class stand side by side: the odd-numbered one's bits in bits 0..15 of an entry,
// the even-numbered one's in bits 16..31. The indices are those of the codebooks.
#ifndef AACENC_CODEBOOK_BITS_H
#define AACENC_CODEBOOK_BITS_H

#include <cstdint>

extern const uint32_t bits1_2[81];
extern const uint32_t bits3_4[81];
extern const uint32_t bits5_6[81];
extern const uint32_t bits7_8[64];
extern const uint32_t bits9_10[169];

// Book 11 has no partner.
extern const uint8_t bits11[289];

#endif // AACENC_CODEBOOK_BITS_H

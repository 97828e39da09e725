// Constants of perceptual noise substitution.
#ifndef AACENC_NOISE_TABLES_H
#define AACENC_NOISE_TABLES_H

#include <cstdint>

// Binary logarithm of a mantissa: about 2^15 * (1 + log2(1 + i / 32)). Q15, [1, 2).
extern const uint16_t AacLc_Enc_cLog2Table[32];

#endif // AACENC_NOISE_TABLES_H

// The quantiser in vector code, for the processors of vector_s32.h. Each function gives the same
// numbers as its plain version. `count` is a multiple of 4.
#ifndef AACENC_QUANTISER_VECTOR_H
#define AACENC_QUANTISER_VECTOR_H

#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"

#include <cstdint>

// At most this many entries after the last one are overwritten: vectors may have eight lanes.
inline constexpr int32_t kVectorOverrun = 4;

// returns: whether the build and the processor have the vectors
[[nodiscard]] bool vector_quantiser_available();

// As largest_magnitude.
[[nodiscard]] uint32_t largest_magnitude_vector(const int32_t *spectrum, int32_t count);

// As raise_lines. Reads and overwrites kVectorOverrun.
void raise_lines_vector(const int32_t *spectrum, int32_t count, int32_t *power);

// As quantise_lines.
void quantise_lines_vector(const band_lines &lines, int32_t count, int32_t max, int32_t *quantised);

// Quantises lines and counts their bits in two codebooks. Reads kVectorOverrun.
// in: odd_book: the odd-numbered codebook of the class
// returns: bits of both codebooks, as in the tables of codebook_bits.h; the even-numbered ones of
// the escape codebook are kNoPartner
[[nodiscard]] uint32_t count_bits_vector(const band_lines &lines, int32_t count, int32_t odd_book);

#endif // AACENC_QUANTISER_VECTOR_H

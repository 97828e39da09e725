// Codebooks of quantised lines: choosing, counting and packing. `count` is a number of lines, a
// multiple of 4.
#ifndef AACENC_NOISELESS_CODING_H
#define AACENC_NOISELESS_CODING_H

#include "aacenc/quantiser.h"

#include <cstdint>

inline constexpr int32_t kMaxQuantised = 8191; // largest magnitude of the escape codebook

inline constexpr int32_t kSignedZero = 40; // index of all zeros in a signed codebook

inline constexpr int32_t kEscapeMark = 16; // in a codeword: the value is in an escape
inline constexpr int32_t kEscapeBase = kEscapeMark + 1;
inline constexpr uint32_t kNoPartner = 0xFFFFU << 16; // even-numbered bits of the escape codebook

// The lines of a band and how to quantise them.
struct band_lines {
    const int32_t *spectrum;
    const int32_t *power; // magnitudes to the power 3/4; only read for a largest value above 2
    gain_step step;
};

// Quantises a band with the signs of its spectrum.
// in: max: largest quantised magnitude of the lines
// out: quantised: `count` entries
void quantise_lines(const band_lines &lines, int32_t count, int32_t max, int32_t *quantised);

// Picks the shorter of the two candidate codebooks of a quantised band, on a tie the lower-numbered
// one.
// in: max: largest quantised magnitude of the lines, not 0
// out: book: the codebook
// returns: the bits of the lines in it
[[nodiscard]] int32_t choose_codebook(const band_lines &lines, int32_t count, int32_t max,
                                      uint8_t *book);

// As choose_codebook, in vector code.
[[nodiscard]] int32_t choose_codebook_vector(const band_lines &lines, int32_t count, int32_t max,
                                             uint8_t *book);

// Not used by the search, which counts while it chooses.
// returns: bits of the values in a codebook, signs and escapes included; 0 for any other codebook
// source: ISO/IEC 14496-3, 4.6.3
[[nodiscard]] int32_t output_bits_check(int32_t book, const int32_t *values, int32_t count);

// returns: entries of the codeword list that pack_codewords makes of the values
[[nodiscard]] int32_t count_codewords(int32_t book, const int32_t *values, int32_t count);

// Packs a band into entries of the codeword list: a codeword, then its signs, then its escapes,
// each with its length in bits 24..31. A band without spectral data is one entry of length 0.
// in: values: magnitudes up to kMaxQuantised
// returns: the end of the entries
// source: ISO/IEC 14496-3, 4.6.3
[[nodiscard]] uint32_t *pack_codewords(int32_t book, const int32_t *values, int32_t count,
                                       uint32_t *out);

#endif // AACENC_NOISELESS_CODING_H

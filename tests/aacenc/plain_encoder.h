// The coding of lines written plainly. The ones that ship must equal them bit for bit.
#ifndef TESTS_AACENC_PLAIN_ENCODER_H
#define TESTS_AACENC_PLAIN_ENCODER_H

#include <cstdint>

// As power_three_quarters.
int32_t plain_power(uint32_t magnitude);

// A line quantised, with its sign.
int32_t plain_quantise(int32_t line, int32_t power, int32_t factor_q29);

// As output_bits_check, for the codebooks 1..11.
int32_t plain_bits(int32_t book, const int32_t *values, int32_t count);

#endif // TESTS_AACENC_PLAIN_ENCODER_H

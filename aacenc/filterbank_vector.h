// The filterbank in vectors.
#ifndef AACENC_FILTERBANK_VECTOR_H
#define AACENC_FILTERBANK_VECTOR_H

#include <cstdint>

// returns: whether the build and the processor have the vectors for transform_vector
[[nodiscard]] bool vector_transform_available();

// As transform_plain, to the last bit. Takes 4 KB of stack and its twiddle factors from tables.
void transform_vector(const int16_t *cur, int32_t *spec, const int16_t *prev);

#endif // AACENC_FILTERBANK_VECTOR_H

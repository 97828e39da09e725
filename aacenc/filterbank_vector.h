// The filterbank in vector code.
#ifndef AACENC_FILTERBANK_VECTOR_H
#define AACENC_FILTERBANK_VECTOR_H

#include <cstdint>

// returns: whether the build and the processor have the vectors for transform_vector
[[nodiscard]] bool vector_transform_available();

// As transform_plain, bit for bit. Takes 4 KB of stack; its twiddle factors are in tables.
void transform_vector(const int16_t *cur, int32_t *spec, const int16_t *prev);

#endif // AACENC_FILTERBANK_VECTOR_H

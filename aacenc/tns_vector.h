// Temporal noise shaping in vector code, for the processors of vector_s32.h. Each function gives
// the same numbers as its plain version.
#ifndef AACENC_TNS_VECTOR_H
#define AACENC_TNS_VECTOR_H

#include <cstdint>

// returns: whether the build and the processor have the vectors
[[nodiscard]] bool vector_tns_available();

// As lagged_sum.
[[nodiscard]] uint64_t lagged_sum_vector(const int32_t *lines, int32_t count, int32_t lag);

// As filter_small_lines, of which it handles all but the last few.
// returns: the first line that is left
[[nodiscard]] int32_t filter_small_lines_vector(const int32_t *work, int32_t first, int32_t end,
                                                const int32_t *direct_form, int32_t *lines);

#endif // AACENC_TNS_VECTOR_H

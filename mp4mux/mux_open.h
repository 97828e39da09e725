// MUX_OPEN: from the caller's records to a context with its caches, its tracks and an open file.
#ifndef MP4MUX_MUX_OPEN_H
#define MP4MUX_MUX_OPEN_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Allocates a context, opens the output file and writes its head.
// out: handle: the context, also after a failure; untouched for MUX_ERR_HANDLE
// returns: 0 or the error
// owns: the caller, until MUX_CLOSE
[[nodiscard]] int32_t open_mux(void **handle, const mp4_mux_init_t *init,
                               const mp4_mux_input_t *input);

// Rounds the start of lent memory up and its size down to multiples of 4.
void align_memory(uint8_t **memory, int32_t *bytes);

#endif // MP4MUX_MUX_OPEN_H

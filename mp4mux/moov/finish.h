// The end of a recording: the trailer of the file, and the release of everything.
#ifndef MP4MUX_MOOV_FINISH_H
#define MP4MUX_MOOV_FINISH_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Completes the scratch tables, sets the size of the media data, appends the movie box, and
// releases the scratch files, the tracks and the context. A file without frames only gets its head.
//
// A failure inside the movie box does not stop the writing of the rest of it. But a file that is
// incomplete, from its head to its last box, is never reported as closed.
//
// returns: 0: the context is gone; or the error record's code: mp4_mux_release must release the
//          rest. Tags: "<write_trailer", "<mp4_mux_close", "<mp4_mux_close.&…"
// source: ISO/IEC 14496-12, 8.1.1 (media data)
[[nodiscard]] int32_t mp4_mux_close(mp4_mux_t *mux);

// Releases all that a context still holds, and the context: closes its files, removes its scratch
// files, frees its memory. Writes nothing and ignores failures.
void mp4_mux_release(mp4_mux_t *mux);

#endif // MP4MUX_MOOV_FINISH_H

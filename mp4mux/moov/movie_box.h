// The movie box: its header, the track boxes, and the user data.
#ifndef MP4MUX_MOOV_MOVIE_BOX_H
#define MP4MUX_MOOV_MOVIE_BOX_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Writes the movie box at the current end of the output, patches all sizes and flushes. The output
// may be at any position afterwards.
// returns: the box's size, or the error record's code when a size could not be written; a failure
//          inside the boxes is in the error record, and marks the bitstream as torn
// source: ISO/IEC 14496-12, 8.2
[[nodiscard]] int64_t write_moov_box(mp4_mux_t *mux);

// Writes the track header box; a failure is in the error record.
// source: ISO/IEC 14496-12, 8.3.2
void write_tkhd_box(mp4_mux_t *mux, mp4_mux_track_t *p_track);

#endif // MP4MUX_MOOV_MOVIE_BOX_H

// The sample table box of one track, built from its scratch tables.
#ifndef MP4MUX_MOOV_SAMPLE_TABLE_H
#define MP4MUX_MOOV_SAMPLE_TABLE_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Writes the sample table box at the current position; closes and removes each scratch file once
// its box is written. The first failure ends the table: the boxes after it are missing, and the
// output is marked as torn, unless a scratch file could not be closed.
// returns: its size or a negative code; tags of the box that failed and "<write_stbl_box"
// source: ISO/IEC 14496-12, 8.5 to 8.7
[[nodiscard]] int32_t write_stbl_box(mp4_mux_t *mux, mp4_mux_track_t *p_track);

#endif // MP4MUX_MOOV_SAMPLE_TABLE_H

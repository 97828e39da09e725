// The movie box: its header, the track boxes, and the user data.
#ifndef MP4MUX_MOOV_MOVIE_BOX_H
#define MP4MUX_MOOV_MOVIE_BOX_H

#include "mp4mux/mux_context.h"

#include <cstdint>

inline constexpr uint32_t kMovieTimeScale = 90000;
inline constexpr int64_t kMaxShortDuration = 0x7FFFFFFE; // beyond it a header takes version 1

// Writes the movie box at the current end of the output, patches all sizes and flushes. The output
// may stand anywhere afterwards.
// returns  the box's size, or the error record's code when a size could not be written; a failure
//          inside the boxes is in the error record, and marks the bitstream as torn
// source   ISO/IEC 14496-12, 8.2
[[nodiscard]] int64_t write_moov_box(mp4_mux_t *mux);

// Writes a track header at the current position. Failures are in the error record.
// source   ISO/IEC 14496-12, 8.3.2
void write_tkhd_box(mp4_mux_t *mux, mp4_mux_track_t *p_track);

// A track's duration in ticks of the given timescale.
[[nodiscard]] constexpr int64_t duration_ticks(uint32_t duration_ms, uint32_t ticks_per_second)
{
    return static_cast<int64_t>(uint64_t{duration_ms} * ticks_per_second) / 1000;
}

#endif // MP4MUX_MOOV_MOVIE_BOX_H

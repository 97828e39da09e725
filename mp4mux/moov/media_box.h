// The media box of one track: media header, handler and media information.
#ifndef MP4MUX_MOOV_MEDIA_BOX_H
#define MP4MUX_MOOV_MEDIA_BOX_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Writes the media box at the current position.
// returns: its size, or the error record's code after a failed size patch; failures inside the
//          sample tables are in the error record only
// source: ISO/IEC 14496-12, 8.4
[[nodiscard]] int32_t write_mdia_box(mp4_mux_t *mux, mp4_mux_track_t *p_track);

#endif // MP4MUX_MOOV_MEDIA_BOX_H

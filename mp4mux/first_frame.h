// Decoder configuration from the first frame of a track that was given none.
#ifndef MP4MUX_FIRST_FRAME_H
#define MP4MUX_FIRST_FRAME_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Builds the configuration of an AVC track from the parameter sets in its first frame. The track
// stays without one if the frame has no SPS of at least kMinSpsBytes bytes or no PPS.
// returns: 0 or MUX_ERR_MEMORY
// source: ISO/IEC 14496-15, 5.2.4.1
[[nodiscard]] int32_t take_avc_configuration(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                                             const mp4_mux_putstream_t *frame);

// Keeps the first frame of an "ac-3" track: its sync information describes the stream. Not reached:
// no format tag leads to that entry.
// returns: 0 or MUX_ERR_MEMORY
[[nodiscard]] int32_t take_ac3_configuration(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                                             const mp4_mux_putstream_t *frame);

#endif // MP4MUX_FIRST_FRAME_H

// The sample entry of a track with its codec-specific box.
#ifndef MP4MUX_MOOV_SAMPLE_ENTRY_H
#define MP4MUX_MOOV_SAMPLE_ENTRY_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Write at the current position of the output.
// returns: the size written, or a negative code; tags "<write_video_box", "<write_audio_box"
// source: ISO/IEC 14496-12, 8.5.2 and 12.1.3, 12.2.3; ISO/IEC 14496-14, 5.6
[[nodiscard]] int32_t write_video_box(mp4_mux_t *mux, mp4_mux_track_t *p_track);
[[nodiscard]] int32_t write_audio_box(mp4_mux_t *mux, mp4_mux_track_t *p_track);

#endif // MP4MUX_MOOV_SAMPLE_ENTRY_H

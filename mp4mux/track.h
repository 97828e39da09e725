// The creation of a track: its record, its decoder configuration, and the scratch bitstreams that
// keep its sample tables while recording.
#ifndef MP4MUX_TRACK_H
#define MP4MUX_TRACK_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Appends a track to the context's table and prepares its scratch bitstreams.
// returns: 0, MUX_ERR_MEMORY (also for a cache region that is too small), MUX_ERR_OPEN for a
//          scratch name that is too long, or the error of writing the reserved header bytes
// owns: the context, also after a failure
[[nodiscard]] int32_t add_audio_track(mp4_mux_t *mux, const mp4_mux_input_t *input);
[[nodiscard]] int32_t add_video_track(mp4_mux_t *mux, const mp4_mux_input_t *input);

// Copies decoder configuration bytes into a track that has none.
// returns: 0, or MUX_ERR_MEMORY with the given message
// owns: the track
[[nodiscard]] int32_t set_codec_private(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                                        const uint8_t *bytes, int32_t count, const char *message);

#endif // MP4MUX_TRACK_H

// The creation of a track: its record, its decoder configuration, and the scratch bitstreams that
// keep its sample tables while recording.
#ifndef MP4MUX_TRACK_H
#define MP4MUX_TRACK_H

#include "mp4mux/mux_context.h"

#include <cstddef>
#include <cstdint>

// Slices of a track's cache region, in the order of m_iCacheSizeOf.
enum {
    kCacheOfStco = 0,
    kCacheOfStss,
    kCacheOfStsz,
    kCacheOfStts,
    kCacheOfSttsdts,
};

// Bytes of a table box before its records; with an append callback the scratch tables begin with
// as many zero bytes.
inline constexpr int32_t kTableHeaderBytes = 16;
inline constexpr int32_t kSizeTableHeaderBytes = 20; // stsz has one field more

// Appends a track to the context's table and prepares its scratch bitstreams.
// returns  0, MUX_ERR_MEMORY (also for a cache region too small to cut), MUX_ERR_OPEN for a scratch
//          name that is too long, or the error of writing the reserved header bytes
// owns     the context owns the track, also after a failure
[[nodiscard]] int32_t add_audio_track(mp4_mux_t *mux, const mp4_mux_input_t *input);
[[nodiscard]] int32_t add_video_track(mp4_mux_t *mux, const mp4_mux_input_t *input);

// Copies decoder configuration bytes into a track that has none.
// returns  0, or MUX_ERR_MEMORY with the given message
// owns     the track
[[nodiscard]] int32_t set_codec_private(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                                        const uint8_t *bytes, int32_t count, const char *message);

#endif // MP4MUX_TRACK_H

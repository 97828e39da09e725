// The writing of one frame: its bytes into the media data, its records into the scratch tables.
#ifndef MP4MUX_FRAME_H
#define MP4MUX_FRAME_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Appends a frame.
//
// The records are written before the frame's bytes. A record that could not be stored does not fail
// this function: the failure is in the error record, and the frame does not count. A failed frame
// is not undone: its bytes belong to no sample, and the records of the track's next frame overwrite
// its own.
//
// returns: 0; MUX_ERR_NO_STREAM without a track of the frame's type; MUX_ERR_INVALID for a frame
//          that is invalid or has no place in the file; MUX_ERR_MEMORY; the bitstream's error
//          for the frame's bytes or a run of durations, with the tag "<mp4_mux_putframe"
[[nodiscard]] int32_t mp4_mux_putframe(mp4_mux_t *mux, const mp4_mux_putstream_t *frame);

#endif // MP4MUX_FRAME_H

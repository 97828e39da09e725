// The times of all frames: exact ones from the journal, those of the scratch tables, and those of
// steady rates.
//
// A first pass notes every frame, a second pass asks for the time of every frame.
#ifndef RECOVERY_FRAME_TIMES_H
#define RECOVERY_FRAME_TIMES_H

#include "recovery/frame_stream.h"

#include <cstdint>

struct frame_times {
    uint32_t last_ms[2]; // of pictures and of sounds
    uint32_t delta_ms[2];
    bool has_time[2];
    int64_t inexact_frames;
    int64_t inexact_pictures;
};

void frame_times_note(frame_times *times, const stream_frame *frame);

// Begins the second pass.
void frame_times_rewind(frame_times *times);

[[nodiscard]] uint32_t frame_times_next(frame_times *times, const stream_frame *frame);

#endif // RECOVERY_FRAME_TIMES_H

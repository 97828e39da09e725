// The times of all frames: exact ones, of the journal or of the scratch tables, those that continue
// exact ones, and those of the frames' places.
//
// A first pass notes every frame, a second pass asks for the time of every frame.
#ifndef RECOVERY_FRAME_TIMES_H
#define RECOVERY_FRAME_TIMES_H

#include "recovery/frame_stream.h"
#include "recovery/place_times.h"
#include "recovery/steady_rate.h"

#include <cstdint>

struct frame_times {
    place_times places;
    time_grid grids[2]; // of pictures and of sounds
    steady_rate known;  // of the pictures; zeros: none
    int64_t inexact_frames;
    int64_t inexact_pictures;
};

// Begins the first pass.
void frame_times_begin(frame_times *times);

void frame_times_note(frame_times *times, const stream_frame *frame);

// Ends the first pass.
// in: known: of the pictures; zeros: none
void frame_times_fit(frame_times *times, int32_t sample_rate, steady_rate known);

// Begins the second pass.
void frame_times_rewind(frame_times *times);

// in: frame: also one that is lost, whose time is known
// returns: its time
uint32_t frame_times_next(frame_times *times, const stream_frame *frame);

// returns: the rate of the pictures whose times are not exact; zeros when there is none
[[nodiscard]] steady_rate frame_times_rate(const frame_times *times);

#endif // RECOVERY_FRAME_TIMES_H

#include "recovery/frame_times.h"

#include "mp4mux/mp4_mux.h"

#include <cstring>

void frame_times_begin(frame_times *times)
{
    memset(&times->places, 0, sizeof(times->places)); // too large for a copy on some stacks
    times->inexact_frames = 0;
    times->inexact_pictures = 0;
}

void frame_times_note(frame_times *times, const stream_frame *frame)
{
    if (frame->skipped_bytes > 0) {
        place_times_note_hole(&times->places);
    }
    place_times_note(&times->places, frame->type);
    times->inexact_frames += frame->is_timed ? 0 : 1;
    times->inexact_pictures += !frame->is_timed && frame->type == MUX_TYPE_VIDEO ? 1 : 0;
}

void frame_times_fit(frame_times *times, int32_t sample_rate, steady_rate known)
{
    times->known = known;
    place_times_fit(&times->places, sample_rate, known);
}

void frame_times_rewind(frame_times *times)
{
    place_times_rewind(&times->places);
    times->grids[0] = {};
    times->grids[1] = {};
}

static uint32_t continue_grid(frame_times *times, bool is_sound)
{
    if (is_sound) {
        return time_grid_continue(&times->grids[1], &times->places.sound_rate, 1);
    }
    return times->known.num != 0
               ? time_grid_continue(&times->grids[0], &times->known, 1)
               : time_grid_continue(&times->grids[0], picture_rates, kPictureRates);
}

// returns: the time of the last picture
static uint32_t last_picture_ms(const time_grid *grid)
{
    return grid->times_ms[(grid->frames - 1) % kKeptTimes];
}

uint32_t frame_times_next(frame_times *times, const stream_frame *frame)
{
    const bool is_sound = frame->type == MUX_TYPE_AUDIO;
    time_grid *const grid = &times->grids[is_sound ? 1 : 0];
    const uint32_t place_ms = place_times_next(&times->places, frame->type);
    uint32_t time_ms = frame->time_ms;
    if (!frame->is_timed && grid->frames > 0) {
        return continue_grid(times, is_sound);
    }
    if (!frame->is_timed && is_sound && times->grids[0].frames > 0) {
        time_ms = last_picture_ms(&times->grids[0]); // the first sound, after exact pictures
    } else if (!frame->is_timed) {
        return place_ms;
    }
    time_grid_note(grid, time_ms);
    return time_ms;
}

steady_rate frame_times_rate(const frame_times *times)
{
    if (times->inexact_pictures == 0) {
        return {};
    }
    return times->grids[0].frames > 0 ? times->grids[0].rate : times->places.picture_rate;
}

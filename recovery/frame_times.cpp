#include "recovery/frame_times.h"

#include "mp4mux/mp4_mux.h"

void frame_times_note(frame_times *times, const stream_frame *frame)
{
    times->inexact_frames += frame->is_timed ? 0 : 1;
    times->inexact_pictures += !frame->is_timed && frame->type == MUX_TYPE_VIDEO ? 1 : 0;
}

void frame_times_rewind(frame_times *times)
{
    times->has_time[0] = false;
    times->has_time[1] = false;
}

uint32_t frame_times_next(frame_times *times, const stream_frame *frame)
{
    const size_t track = frame->type == MUX_TYPE_AUDIO ? 1 : 0;
    uint32_t time_ms = frame->time_ms;
    if (!frame->is_timed) {
        time_ms = times->has_time[track] ? times->last_ms[track] + times->delta_ms[track] : 0;
    }
    times->delta_ms[track] = times->has_time[track] ? time_ms - times->last_ms[track] : 33;
    times->last_ms[track] = time_ms;
    times->has_time[track] = true;
    return time_ms;
}

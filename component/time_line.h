// The recording's time line: buffer time stamps (us) become times in ms since the first video
// buffer; a clock that jumps back continues one frame after its last time.
//
// thread: the buffer thread, while recording.
#ifndef COMPONENT_TIME_LINE_H
#define COMPONENT_TIME_LINE_H

#include "component/private_record.h"

// Gives the time of a buffer of the current port, and notes the time stamp.
// out      *time: ms; times that do not fit stay at the largest
// returns  false when the buffer has no place on the time line: audio before any video, or before
//          the base
[[nodiscard]] bool map_time_stamp(omx_tdmbrec_component_PrivateType *self, int64_t ts_us,
                                  uint32_t *time);

// Takes note of a video frame's time: measures the video interval, and publishes the time in
// global_ui_VIDEO_PTS, in a new segment after a gap.
void note_video_time(omx_tdmbrec_component_PrivateType *self, uint32_t time);

// Sum of two times in ms; what does not fit stays at the largest.
[[nodiscard]] uint32_t add_ms(uint32_t a_ms, uint32_t b_ms);

#endif // COMPONENT_TIME_LINE_H

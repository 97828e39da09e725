// The recording's time line: maps buffer time stamps (us) to times in ms since the first video
// buffer. After a clock has jumped back, its times continue one frame after the last one.
//
// thread: the buffer thread, while recording
#ifndef COMPONENT_TIME_LINE_H
#define COMPONENT_TIME_LINE_H

#include "component/private_record.h"

// Maps the time stamp of a buffer of port ucBufferPort.
// out: *time_ms: at most UINT32_MAX, also for later times
// returns: false for audio before any video or before the time base, which has no place on the
//          time line
[[nodiscard]] bool map_time_stamp(omx_tdmbrec_component_PrivateType *self, int64_t ts_us,
                                  uint32_t *time_ms);

// Measures the video interval at a video frame, and publishes the frame's time in
// global_ui_VIDEO_PTS: in a new segment when it is more than two intervals after the last one.
void note_video_time(omx_tdmbrec_component_PrivateType *self, uint32_t time_ms);

// returns: the sum, at most UINT32_MAX
[[nodiscard]] uint32_t add_ms(uint32_t a_ms, uint32_t b_ms);

// Resets the time line for the next recording.
// thread: the constructor's; the end of a recording
void reset_time_line(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_TIME_LINE_H

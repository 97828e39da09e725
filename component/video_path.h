// The recording's video: from a client's buffer to the muxer's frame.
#ifndef COMPONENT_VIDEO_PATH_H
#define COMPONENT_VIDEO_PATH_H

#include "component/private_record.h"

// Makes the frame of a video buffer, in the buffer itself when it fits. Opens the file at the first
// buffer with usable parameter sets. Consumes the buffer.
// out: *frame: of kind 0 when the buffer makes no frame
// returns: false when the file could not be opened
// thread: the buffer thread, while recording
[[nodiscard]] bool handle_video_buffer(omx_tdmbrec_component_PrivateType *self,
                                       OMX_BUFFERHEADERTYPE *buffer, uint32_t time_ms,
                                       mp4_mux_putstream_t *frame);

// Discards what the path keeps of a recording, and frees its memory for frames.
// thread: the end of a recording
void reset_video_path(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_VIDEO_PATH_H

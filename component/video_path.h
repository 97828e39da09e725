// The recording's video: from a client's buffer to the frame that the muxer takes.
#ifndef COMPONENT_VIDEO_PATH_H
#define COMPONENT_VIDEO_PATH_H

#include "component/private_record.h"

// Makes the frame of a video buffer with time time, in the buffer itself where there is room.
// Opens the file at the first buffer with parameter sets. The buffer is consumed.
// out      *frame: kind 0 when the buffer gives no frame
// returns  false when the file could not be opened
// thread   the buffer thread, while recording
[[nodiscard]] bool handle_video_buffer(omx_tdmbrec_component_PrivateType *self,
                                       OMX_BUFFERHEADERTYPE *buffer, uint32_t time,
                                       mp4_mux_putstream_t *frame);

#endif // COMPONENT_VIDEO_PATH_H

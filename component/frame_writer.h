// Writes the recording's frames to the muxer and watches the size of the file.
#ifndef COMPONENT_FRAME_WRITER_H
#define COMPONENT_FRAME_WRITER_H

#include "component/omx_tdmbrec_component.h"

typedef enum write_result_t {
    WRITE_DONE,      // written, or nothing to write yet
    WRITE_FAILED,    // the muxer failed (logged)
    WRITE_SIZE_LIMIT // written, and the file has grown past its limit
} write_result_t;

// Writes a frame whose times are on the recording's time line; frames before the file's first video
// frame, and of kind 0, are not written.
// thread: the buffer thread, while recording
[[nodiscard]] write_result_t write_frame(omx_tdmbrec_component_PrivateType *pPrivate,
                                         mp4_mux_putstream_t *pFrame);

#endif

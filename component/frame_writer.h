// Writes the recording's frames to the muxer and watches the size of the file.
#ifndef COMPONENT_FRAME_WRITER_H
#define COMPONENT_FRAME_WRITER_H

#include "component/private_record.h"

enum write_result_t {
    kWriteDone,      // written, or nothing to write yet
    kWriteFailed,    // the muxer failed
    kWriteSizeLimit, // written, and the file has grown past its limit
    kWriteNothing    // no frame, or no file yet
};

// Writes a frame whose times are those of the file.
// out      *mux_result: what the muxer returned, 0 when it was not called
// thread:  any, while recording; takes lockTDMBRecording
[[nodiscard]] write_result_t put_frame(omx_tdmbrec_component_PrivateType *self,
                                       mp4_mux_putstream_t *frame, int32_t *mux_result);

// Tells whether the file has a frame of any kind.
// thread:  any, while recording; takes lockTDMBRecording
[[nodiscard]] bool has_written_frames(const omx_tdmbrec_component_PrivateType *self);

// Fetches the muxer's last error and logs it in the name of the function and line that met it.
// thread:  any, while recording; takes lockTDMBRecording
void log_mux_error(omx_tdmbrec_component_PrivateType *self, int32_t mux_result,
                   const char *function, int line);

// Writes a frame whose times are on the recording's time line and logs a failure; frames before the
// file's first video frame, and of kind 0, are not written.
// returns  all but kWriteNothing
// thread:  the buffer thread, while recording
[[nodiscard]] write_result_t write_frame(omx_tdmbrec_component_PrivateType *self,
                                         mp4_mux_putstream_t *frame);

#endif // COMPONENT_FRAME_WRITER_H

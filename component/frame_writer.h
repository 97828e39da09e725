// Writes the recording's frames to the muxer and watches the size of the file.
#ifndef COMPONENT_FRAME_WRITER_H
#define COMPONENT_FRAME_WRITER_H

#include "component/private_record.h"

enum write_result_t {
    kWriteDone,     // written
    kWriteNothing,  // not written: no frame, no open file, or before the file's first picture
    kWriteFailed,   // the muxer failed: the recording ends
    kWriteSizeLimit // written, and the file has passed its limit: the recording ends
};

// Writes a frame whose times are those of the file.
// out: *mux_result: the muxer's result, 0 when it was not called
// thread: any, while recording; takes lockTDMBRecording
[[nodiscard]] write_result_t put_frame(omx_tdmbrec_component_PrivateType *self,
                                       mp4_mux_putstream_t *frame, int32_t *mux_result);

// returns: whether the file has a frame of any kind
// thread: any, while recording; takes lockTDMBRecording
[[nodiscard]] bool has_written_frames(const omx_tdmbrec_component_PrivateType *self);

// Fetches the muxer's last error and logs it under the name of a function and line.
// thread: any, while recording; takes lockTDMBRecording
void log_mux_error(omx_tdmbrec_component_PrivateType *self, int32_t mux_result,
                   const char *function, int line);

// Writes a frame whose times are those of the recording's time line, and logs a failure. A frame of
// kind 0 is not written.
// thread: the buffer thread, while recording; takes lockTDMBRecording
[[nodiscard]] write_result_t write_frame(omx_tdmbrec_component_PrivateType *self,
                                         mp4_mux_putstream_t *frame);

// Marks the next file as one without frames.
// thread: the end of a recording; under lockTDMBRecording
void reset_written_frames(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_FRAME_WRITER_H

// The writer threads: each writes the frames of one FIFO to the recording's file, until the
// recording ends or a write ends it.
#include "component/frame_fifo.h"
#include "component/frame_writer.h"
#include "component/private_record.h"
#include "component/recording_end.h"
#include "component/shared_fields.h"
#include "component/tdmbrec_interface.h"

#include <unistd.h>

static constexpr useconds_t kIdleUs = 10000;

namespace {

struct writer_t {
    uint32_t fifo;
    int32_t type; // MUX_TYPE_...
    const char *function;
    int line; // logged with the function, as on the device
};

} // namespace

static constexpr writer_t kVideoWriter = {QVR_FIFO_VIDEO, MUX_TYPE_VIDEO,
                                          "omx_tdmbrec_video_thread", 2221};
static constexpr writer_t kAudioWriter = {QVR_FIFO_AUDIO, MUX_TYPE_AUDIO,
                                          "omx_tdmbrec_audio_thread", 2152};

// Writes the oldest frame, if any; it stays in the FIFO while no file is open.
static write_result_t write_oldest_frame(omx_tdmbrec_component_PrivateType *self,
                                         const writer_t *writer, int32_t *mux_result)
{
    mp4_mux_putstream_t frame = {.m_iType = writer->type};
    uint32_t length_bytes = 0;
    int64_t time_ms = 0;
    frame.m_pbyData = QVR_FIFO_GetOneFrame(writer->fifo, &length_bytes, &time_ms, &frame.m_uiFlags);
    if (frame.m_pbyData == nullptr) {
        return kWriteNothing;
    }
    frame.m_iDataSize = static_cast<int32_t>(length_bytes);
    frame.m_uiTimeStamp = static_cast<uint32_t>(time_ms);
    frame.m_uiTimeStamp2 = frame.m_uiTimeStamp;
    const write_result_t result = put_frame(self, &frame, mux_result);
    if (result != kWriteNothing) {
        (void)QVR_FIFO_PopFrame(writer->fifo);
    }
    return result;
}

static void end_recording(OMX_COMPONENTTYPE *component, const writer_t *writer,
                          write_result_t result, int32_t mux_result)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    const bool ends_recording = take_recording(self);
    log_mux_error(self, mux_result, writer->function, writer->line);
    if (ends_recording) {
        begin_stop(component,
                   result == kWriteFailed ? TDMBREC_STOP_WRITE : TDMBREC_STOP_SIZE_LIMIT);
    }
}

static void write_frames(OMX_COMPONENTTYPE *component, const writer_t *writer)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    while (load_shared(self->bRecording) == 1) {
        int32_t mux_result = 0;
        const write_result_t result = write_oldest_frame(self, writer, &mux_result);
        switch (result) {
        case kWriteDone:
            break;
        case kWriteNothing:
            usleep(kIdleUs);
            break;
        case kWriteFailed:
        case kWriteSizeLimit:
            end_recording(component, writer, result, mux_result);
            return;
        }
    }
}

void *omx_tdmbrec_video_thread(void *handle)
{
    write_frames(static_cast<OMX_COMPONENTTYPE *>(handle), &kVideoWriter);
    pthread_exit(nullptr);
}

void *omx_tdmbrec_audio_thread(void *handle)
{
    write_frames(static_cast<OMX_COMPONENTTYPE *>(handle), &kAudioWriter);
    pthread_exit(nullptr);
}

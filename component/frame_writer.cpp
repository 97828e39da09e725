#include "component/frame_writer.h"

#include "component/checkpoint.h"
#include "component/component_log.h"
#include "component/losses.h"
#include "component/mux_session.h"
#include "component/process_state.h"

// The place of a failure as logs of the device name it.
static constexpr char kTraceFunction[] = "omx_tdmbrec_component_BufferMgmtCallback";
static constexpr int kTraceLine = 829;

static write_result_t put_frame_locked(omx_tdmbrec_component_PrivateType *self,
                                       mp4_mux_putstream_t *frame, int32_t *mux_result)
{
    if (self->iMuxOpenResult != 0) {
        return kWriteNothing;
    }
    int64_t estimated_bytes = 0;
    *mux_result = QVR_MP4_MUX(MUX_PUTFRAME, &self->hMux, frame, &estimated_bytes);
    if (*mux_result < 0) {
        note_refused_frame(self);
        note_loss(self,
                  frame->m_iType == MUX_TYPE_AUDIO ? kLostSoundFrameRefused : kLostPictureRefused);
        return kWriteFailed;
    }
    note_checkpoint_frame(self, frame);
    if (frame->m_iType == MUX_TYPE_AUDIO) {
        self->bAudioWritten = 1;
    } else {
        self->bVideoWritten = 1;
    }
    return estimated_bytes > TDMBREC_FILE_LIMIT_BYTES ? kWriteSizeLimit : kWriteDone;
}

write_result_t put_frame(omx_tdmbrec_component_PrivateType *self, mp4_mux_putstream_t *frame,
                         int32_t *mux_result)
{
    *mux_result = 0;
    pthread_mutex_lock(&lockTDMBRecording);
    const write_result_t result = put_frame_locked(self, frame, mux_result);
    pthread_mutex_unlock(&lockTDMBRecording);
    return result;
}

bool has_written_frames(const omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&lockTDMBRecording);
    const bool has_frames = self->bVideoWritten != 0 || self->bAudioWritten != 0;
    pthread_mutex_unlock(&lockTDMBRecording);
    return has_frames;
}

void log_mux_error(omx_tdmbrec_component_PrivateType *self, int32_t mux_result,
                   const char *function, int line)
{
    pthread_mutex_lock(&lockTDMBRecording);
    fetch_mux_error(self);
    const char *const message = self->stMuxError.m_pszMessage;
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s:%d] %d [%d] Error:%s 0x%08X\n", function,
                        line, mux_result, self->stMuxError.m_iCode, message,
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(message)));
    pthread_mutex_unlock(&lockTDMBRecording);
}

write_result_t write_frame(omx_tdmbrec_component_PrivateType *self, mp4_mux_putstream_t *frame)
{
    const uint32_t origin_ms = self->uiFirstVideoPts;
    if (frame->m_iType == 0) {
        return kWriteNothing;
    }
    // The times of pictures only rise: samples were queued before the first one.
    if (origin_ms == 0 || origin_ms > frame->m_uiTimeStamp) {
        note_loss(self, kLostSoundFrameBeforePicture);
        return kWriteNothing;
    }
    frame->m_uiTimeStamp -= origin_ms;
    frame->m_uiTimeStamp2 -= origin_ms;
    int32_t mux_result = 0;
    const write_result_t result = put_frame(self, frame, &mux_result);
    if (result == kWriteFailed) {
        log_mux_error(self, mux_result, kTraceFunction, kTraceLine);
    }
    return result;
}

void reset_written_frames(omx_tdmbrec_component_PrivateType *self)
{
    self->bAudioWritten = 0;
    self->bVideoWritten = 0;
}

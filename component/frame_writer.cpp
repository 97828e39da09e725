#include "component/frame_writer.h"

#include "component/component_log.h"
#include "component/mux_session.h"
#include "component/process_state.h"

static constexpr int64_t kLargestFileBytes = 1800000000;
static constexpr int kTraceLine = 829; // the place that the device's log names

static write_result_t put_frame_locked(omx_tdmbrec_component_PrivateType *pPrivate,
                                       mp4_mux_putstream_t *pFrame, int32_t *piMuxResult)
{
    if (pPrivate->iMuxOpenResult != 0) {
        return kWriteNothing;
    }
    int64_t estimated_bytes = 0;
    *piMuxResult = QVR_MP4_MUX(MUX_PUTFRAME, &pPrivate->hMux, pFrame, &estimated_bytes);
    if (*piMuxResult < 0) {
        return kWriteFailed;
    }
    if (pFrame->m_iType == MUX_TYPE_AUDIO) {
        pPrivate->bAudioWritten = 1;
    } else {
        pPrivate->bVideoWritten = 1;
    }
    return estimated_bytes > kLargestFileBytes ? kWriteSizeLimit : kWriteDone;
}

write_result_t put_frame(omx_tdmbrec_component_PrivateType *pPrivate, mp4_mux_putstream_t *pFrame,
                         int32_t *piMuxResult)
{
    *piMuxResult = 0;
    pthread_mutex_lock(&lockTDMBRecording);
    const write_result_t result = put_frame_locked(pPrivate, pFrame, piMuxResult);
    pthread_mutex_unlock(&lockTDMBRecording);
    return result;
}

bool has_written_frames(const omx_tdmbrec_component_PrivateType *pPrivate)
{
    pthread_mutex_lock(&lockTDMBRecording);
    const bool has_frames = pPrivate->bVideoWritten != 0 || pPrivate->bAudioWritten != 0;
    pthread_mutex_unlock(&lockTDMBRecording);
    return has_frames;
}

void log_mux_error(omx_tdmbrec_component_PrivateType *pPrivate, int32_t mux_result,
                   const char *pszFunction, int line)
{
    pthread_mutex_lock(&lockTDMBRecording);
    fetch_mux_error(pPrivate);
    const char *const pszMessage = pPrivate->stMuxError.m_pszMessage;
    __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "[%s:%d] %d [%d] Error:%s 0x%08X\n",
                        pszFunction, line, mux_result, pPrivate->stMuxError.m_iCode, pszMessage,
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(pszMessage)));
    pthread_mutex_unlock(&lockTDMBRecording);
}

write_result_t write_frame(omx_tdmbrec_component_PrivateType *pPrivate, mp4_mux_putstream_t *pFrame)
{
    const uint32_t origin = pPrivate->uiFirstVideoPts;
    if (origin == 0 || origin > pFrame->m_uiTimeStamp) {
        return kWriteDone;
    }
    pFrame->m_uiTimeStamp -= origin;
    pFrame->m_uiTimeStamp2 -= origin;
    if (pFrame->m_iType == 0 || pPrivate->iMuxOpenResult != 0) {
        return kWriteDone;
    }
    int32_t mux_result = 0;
    const write_result_t result = put_frame(pPrivate, pFrame, &mux_result);
    if (result == kWriteFailed) {
        log_mux_error(pPrivate, mux_result, "omx_tdmbrec_component_BufferMgmtCallback", kTraceLine);
    }
    return result;
}

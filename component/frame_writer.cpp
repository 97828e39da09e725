#include "component/frame_writer.h"

#include "component/component_log.h"
#include "component/mux_session.h"

static constexpr int64_t LARGEST_FILE_BYTES = 1800000000;
static constexpr int TRACE_LINE = 829; // the place that the device's log names

static void log_write_error(omx_tdmbrec_component_PrivateType *pPrivate, int32_t result)
{
    fetch_mux_error(pPrivate);
    const char *const pszMessage = pPrivate->stMuxError.m_pszMessage;
    __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "[%s:%d] %d [%d] Error:%s 0x%08X\n",
                        "omx_tdmbrec_component_BufferMgmtCallback", TRACE_LINE, result,
                        pPrivate->stMuxError.m_iCode, pszMessage,
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(pszMessage)));
}

write_result_t write_frame(omx_tdmbrec_component_PrivateType *pPrivate, mp4_mux_putstream_t *pFrame)
{
    const uint32_t origin = pPrivate->uiFirstVideoPts;
    if (origin == 0 || origin > pFrame->m_uiTimeStamp) {
        return WRITE_DONE;
    }
    pFrame->m_uiTimeStamp -= origin;
    pFrame->m_uiTimeStamp2 -= origin;
    if (pFrame->m_iType == 0 || pPrivate->iMuxOpenResult != 0) {
        return WRITE_DONE;
    }
    int64_t estimated_bytes = 0;
    const int32_t result = QVR_MP4_MUX(MUX_PUTFRAME, &pPrivate->hMux, pFrame, &estimated_bytes);
    if (result < 0) {
        log_write_error(pPrivate, result);
        return WRITE_FAILED;
    }
    if (pFrame->m_iType == MUX_TYPE_AUDIO) {
        pPrivate->bAudioWritten = 1;
    } else {
        pPrivate->bVideoWritten = 1;
    }
    return estimated_bytes > LARGEST_FILE_BYTES ? WRITE_SIZE_LIMIT : WRITE_DONE;
}

#include "component/mux_session.h"

#include "component/component_log.h"
#include "component/end_reports.h"
#include "component/file_callbacks.h"
#include "component/name_parts.h"
#include "component/parameter_sets.h"
#include "component/process_state.h"
#include "component/shared_fields.h"
#include "component/storage_watch.h"
#include "platform/qvr_memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr size_t kCacheBlockBytes = 0x240000;
static constexpr int32_t kOutputCacheBytes = 0x100000;
static constexpr int32_t kVideoCacheBytes = 0xC0000;
static constexpr int32_t kAudioCacheBytes = 0x80000;
static_assert(kCacheBlockBytes == kOutputCacheBytes + kVideoCacheBytes + kAudioCacheBytes);
static constexpr int32_t kCloseMemoryBytes = 0x300000;

static constexpr int32_t kVideoWidth = 320;       // pixels
static constexpr int32_t kVideoHeight = 240;      // pixels
static constexpr int32_t kVideoFrameRate = 30000; // frames in 1000 s

static int c_file_at_end(void *hFile)
{
    return feof(static_cast<FILE *>(hFile));
}

static int c_file_flush(void *hFile)
{
    return fflush(static_cast<FILE *>(hFile));
}

static void fill_memory_callbacks(mp4_mux_init_t *pInit)
{
    pInit->m_pfnMalloc = malloc;
    pInit->m_pfnFree = free;
    pInit->m_pfnMemcmp = memcmp;
    pInit->m_pfnMemcpy = memcpy;
    pInit->m_pfnMemmove = memmove;
    pInit->m_pfnMemset = memset;
    pInit->m_pfnRealloc = realloc;
}

static void fill_file_callbacks(mp4_mux_init_t *pInit)
{
    pInit->m_pfnFopen = QVR_FILE_fopen;
    pInit->m_pfnFread = QVR_FILE_fread;
    pInit->m_pfnFseek = QVR_FILE_fseek;
    pInit->m_pfnFtell = QVR_FILE_ftell;
    pInit->m_pfnFclose = QVR_FILE_fclose;
    pInit->m_pfnFwrite = QVR_FILE_fwrite;
    pInit->m_pfnFeof = c_file_at_end;
    pInit->m_pfnFflush = c_file_flush;
    pInit->m_pfnRemove = remove;
}

static void fill_init(omx_tdmbrec_component_PrivateType *pPrivate)
{
    mp4_mux_init_t *const pInit = &pPrivate->stMuxInit;
    *pInit = {};
    fill_memory_callbacks(pInit);
    fill_file_callbacks(pInit);
    pInit->m_pOutput = pPrivate->szRecordingPath;
    pInit->m_uiStreamFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO;
    pInit->m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    pInit->m_pCacheMem = QVR_malloc(kCacheBlockBytes);
    pInit->m_iCacheSize = kOutputCacheBytes;
    pInit->m_iVideoCacheSize = kVideoCacheBytes;
    pInit->m_iAudioCacheSize = kAudioCacheBytes;
    pInit->m_pszTempDir = is_on_removable_storage(pPrivate->szRecordingPath)
                              ? REMOVABLE_STORAGE_ROOT
                              : BUILT_IN_STORAGE_ROOT;
}

static void fill_input(omx_tdmbrec_component_PrivateType *pPrivate)
{
    mp4_mux_input_t *const pInput = &pPrivate->stMuxInput;
    *pInput = {};
    // Every file carries the same creation time: 5 October 2009, 17:05:18.
    pInput->m_iYear = 2009;
    pInput->m_iMonth = 9; // counted from 0
    pInput->m_iDay = 5;
    pInput->m_iWeekDay = 1;
    pInput->m_iHour = 17;
    pInput->m_iMinute = 5;
    pInput->m_iSecond = 18;
    pInput->m_iVideoWidth = kVideoWidth;
    pInput->m_iVideoHeight = kVideoHeight;
    pInput->m_iVideoFrameRate = kVideoFrameRate;
    memcpy(&pInput->m_uiVideoFourCC, "avc1", 4);
    pInput->m_pbyVideoPrivate = pPrivate->aucVideoConfig;
    pInput->m_iVideoPrivateSize = pPrivate->ucVideoConfigLen;
    pInput->m_iAudioSampleRate = pPrivate->stZplAenc.m_iAudioSamplePerSec;
    pInput->m_iAudioBitsPerSample = pPrivate->stZplAenc.m_iAudioBitsPerSample;
    pInput->m_iAudioChannels = pPrivate->stZplAenc.m_iAudioChannels;
    pInput->m_iAudioCodec = static_cast<int32_t>(pPrivate->uiAudioCodecTag);
    if (pPrivate->uiAudioSpecificConfigLen != 0) {
        pInput->m_pbyAudioPrivate = pPrivate->aucAudioSpecificConfig;
        pInput->m_iAudioPrivateSize = sizeof(pPrivate->aucAudioSpecificConfig);
    }
}

void fetch_mux_error(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->stMuxError = {};
    // Without a context there is nothing to fetch.
    (void)QVR_MP4_MUX(MUX_GET_LAST_ERROR, &pPrivate->hMux, nullptr, &pPrivate->stMuxError);
    if (pPrivate->stMuxError.m_pszMessage == nullptr) {
        pPrivate->stMuxError.m_pszMessage = "";
    }
}

static OMX_ERRORTYPE open_session_locked(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->hMux = nullptr;
    fill_init(pPrivate);
    fill_input(pPrivate);
    pPrivate->stMuxCloseMem = {.m_pMem = QVR_malloc(kCloseMemoryBytes),
                               .m_iSize = kCloseMemoryBytes};
    pPrivate->uiFirstVideoPts = 0;
    // Whatever the result, the close has to run and free the blocks.
    pPrivate->bMuxOpen = 1;
    const int32_t result =
        QVR_MP4_MUX(MUX_OPEN, &pPrivate->hMux, &pPrivate->stMuxInit, &pPrivate->stMuxInput);
    if (result < 0) {
        fetch_mux_error(pPrivate);
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "[Open:%d] Error:%s\n",
                            pPrivate->stMuxError.m_iCode, pPrivate->stMuxError.m_pszMessage);
        return OMX_ErrorBadParameter;
    }
    pPrivate->iMuxOpenResult = 0;
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_mp4_mux_Init(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pthread_mutex_lock(&lockTDMBRecording);
    const OMX_ERRORTYPE result =
        pPrivate->bMuxOpen != 0 ? OMX_ErrorNone : open_session_locked(pPrivate);
    pthread_mutex_unlock(&lockTDMBRecording);
    return result;
}

// The file announces a sound track whatever comes; with not one frame in it, common players refuse
// the whole file. A recording without sound gets one frame of silence.
static void complete_sound_track(omx_tdmbrec_component_PrivateType *pPrivate)
{
    // ISO/IEC 14496-3 channel_pair_element() with max_sfb 0 in both channels, then END.
    static constexpr uint8_t kSilentPair[] = {0x20, 0, 0, 0, 0, 0, 0x0E};
    if (pPrivate->bVideoWritten == 0 || pPrivate->bAudioWritten != 0) {
        return;
    }
    mp4_mux_putstream_t frame = {.m_pbyData = kSilentPair,
                                 .m_iDataSize = sizeof(kSilentPair),
                                 .m_iType = MUX_TYPE_AUDIO,
                                 .m_uiTimeStamp = 0,
                                 .m_uiTimeStamp2 = 0,
                                 .m_uiFlags = MUX_FRAME_KEY};
    // If this cannot be written, the close that follows reports it.
    (void)QVR_MP4_MUX(MUX_PUTFRAME, &pPrivate->hMux, &frame, nullptr);
}

static OMX_ERRORTYPE close_session_locked(omx_tdmbrec_component_PrivateType *pPrivate)
{
    OMX_ERRORTYPE result = OMX_ErrorNone;
    complete_sound_track(pPrivate);
    if (QVR_MP4_MUX(MUX_CLOSE, &pPrivate->hMux, &pPrivate->stMuxCloseMem, nullptr) < 0) {
        fetch_mux_error(pPrivate);
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "[Close:%d] Error:%s \n",
                            pPrivate->stMuxError.m_iCode, pPrivate->stMuxError.m_pszMessage);
        // The muxer still holds the file and the blocks: this second call only releases them.
        (void)QVR_MP4_MUX(MUX_CLOSE, &pPrivate->hMux, nullptr, nullptr);
        result = OMX_ErrorBadParameter;
    }
    pPrivate->stMuxError.m_pszMessage = nullptr; // it went with the context
    pPrivate->hMux = nullptr;
    QVR_free(pPrivate->stMuxInit.m_pCacheMem);
    pPrivate->stMuxInit.m_pCacheMem = nullptr;
    QVR_free(pPrivate->stMuxCloseMem.m_pMem);
    pPrivate->stMuxCloseMem = {};
    pPrivate->bMuxOpen = 0;
    return result;
}

// ucBufferPort is not among these: it is the buffer thread's, which sets it before every callback.
static void reset_recording_state(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->llLastAudioTime = 0;
    pPrivate->llLastVideoTime = 0;
    pPrivate->llAudioBaseTime = 0;
    pPrivate->llVideoBaseTime = 0;
    pPrivate->ucVideoIntervalState = 0xFF;
    pPrivate->ucVideoConfigLen = 0;
    pPrivate->iMuxOpenResult = -1;
    pPrivate->uiAudioSpecificConfigLen = 0;
    pPrivate->ucAudioPtsRead = 0;
    pPrivate->ucAudioPtsWrite = 0;
    pPrivate->ucAudioPtsCount = 0;
    pPrivate->ucAudioRollbackCount = 0;
    pPrivate->ucVideoRollbackCount = 0;
    pPrivate->uiAacInputSize = 0;
    pPrivate->uiAudioFrameMs = 0;
    pPrivate->uiVideoIntervalMs = 0;
    pPrivate->uiFirstVideoPts = 0;
    pPrivate->uiLastAudioPts = 0;
    pPrivate->uiLastVideoPts = 0;
    pPrivate->uiBackupAudioPts = 0;
    pPrivate->uiBackupVideoPts = 0;
    pPrivate->bAudioWritten = 0;
    pPrivate->bVideoWritten = 0;
    pPrivate->bOpenedBySetsAlone = 0;
    pPrivate->bInBandParameterSets = 0;
    pPrivate->bFileBegun = 0;
    forget_kept_sets(pPrivate);
    QVR_free(pPrivate->pucVideoFrame);
    pPrivate->pucVideoFrame = nullptr;
    pPrivate->uiVideoFrameSize = 0;
}

// returns the result of the close; *pReason is what to tell the client.
static OMX_ERRORTYPE close_locked(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t *pReason)
{
    OMX_ERRORTYPE result = OMX_ErrorNone;
    close_storage();
    if (pPrivate->bMuxOpen == 1) {
        result = close_session_locked(pPrivate);
        *pReason = load_shared(global_uc_stop_type);
    } else {
        *pReason = TDMBREC_STOP_STORAGE;
        store_shared<uint8_t>(global_uc_stop_type, TDMBREC_STOP_STORAGE);
    }
    // Also after a recording that never opened its file: its times must not reach the next one.
    reset_recording_state(pPrivate);
    clear_name_parts(pPrivate);
    return result;
}

// No lock is held and the next recording may begin when the client is told, so that it can do
// whatever it likes from the event.
OMX_ERRORTYPE omx_tdmbrec_mp4_mux_DeInit(OMX_COMPONENTTYPE *pComponent,
                                         omx_tdmbrec_component_PrivateType *pPrivate)
{
    uint8_t reason = TDMBREC_STOP_STORAGE;
    pthread_mutex_lock(&lockTDMBRecording);
    const OMX_ERRORTYPE result = close_locked(pPrivate, &reason);
    pthread_mutex_unlock(&lockTDMBRecording);
    // A handle is kept until the next start lets it go, so that no other thread can have the same.
    const bool is_stop_thread =
        pthread_equal(load_shared(pPrivate->hStopThread), pthread_self()) != 0;
    report_end(pComponent, reason, is_stop_thread);
    return result;
}

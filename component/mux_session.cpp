#include "component/mux_session.h"

#include "component/checkpoint.h"
#include "component/component_log.h"
#include "component/file_callbacks.h"
#include "component/process_state.h"
#include "component/storage_watch.h"
#include "platform/qvr_memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr size_t kCacheBlockBytes =
    TDMBREC_OUTPUT_CACHE_BYTES + TDMBREC_VIDEO_CACHE_BYTES + TDMBREC_AUDIO_CACHE_BYTES;
static_assert(kCacheBlockBytes == 0x240000);

static int c_file_at_end(void *file)
{
    return feof(static_cast<FILE *>(file));
}

static int c_file_flush(void *file)
{
    return fflush(static_cast<FILE *>(file));
}

static void fill_memory_callbacks(mp4_mux_init_t *init)
{
    init->m_pfnMalloc = malloc;
    init->m_pfnFree = free;
    init->m_pfnMemcmp = memcmp;
    init->m_pfnMemcpy = memcpy;
    init->m_pfnMemmove = memmove;
    init->m_pfnMemset = memset;
    init->m_pfnRealloc = realloc;
}

static void fill_file_callbacks(mp4_mux_init_t *init)
{
    init->m_pfnFopen = QVR_FILE_fopen;
    init->m_pfnFread = QVR_FILE_fread;
    init->m_pfnFseek = QVR_FILE_fseek;
    init->m_pfnFtell = QVR_FILE_ftell;
    init->m_pfnFclose = QVR_FILE_fclose;
    init->m_pfnFwrite = QVR_FILE_fwrite;
    init->m_pfnFeof = c_file_at_end;
    init->m_pfnFflush = c_file_flush;
    init->m_pfnRemove = remove;
}

static void fill_init(omx_tdmbrec_component_PrivateType *self)
{
    mp4_mux_init_t *const init = &self->stMuxInit;
    *init = {};
    fill_memory_callbacks(init);
    fill_file_callbacks(init);
    init->m_pOutput = self->szRecordingPath;
    init->m_uiStreamFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO;
    init->m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    init->m_pCacheMem = QVR_malloc(kCacheBlockBytes);
    init->m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init->m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init->m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    init->m_pszTempDir = is_on_removable_storage(self->szRecordingPath) ? kRemovableStorageRoot
                                                                        : kBuiltInStorageRoot;
}

static void fill_input(omx_tdmbrec_component_PrivateType *self)
{
    mp4_mux_input_t *const input = &self->stMuxInput;
    *input = {};
    // Every file carries the same creation time: 5 October 2009, 17:05:18.
    input->m_iYear = 2009;
    input->m_iMonth = 9; // counted from 0
    input->m_iDay = 5;
    input->m_iWeekDay = 1;
    input->m_iHour = 17;
    input->m_iMinute = 5;
    input->m_iSecond = 18;
    input->m_iVideoWidth = TDMBREC_PICTURE_WIDTH;
    input->m_iVideoHeight = TDMBREC_PICTURE_HEIGHT;
    input->m_iVideoFrameRate = 1000 * kFramesPerSecond;
    memcpy(&input->m_uiVideoFourCC, "avc1", 4);
    input->m_pbyVideoPrivate = self->aucVideoConfig;
    input->m_iVideoPrivateSize = self->ucVideoConfigLen;
    input->m_iAudioSampleRate = self->stZplAenc.m_iAudioSamplePerSec;
    input->m_iAudioBitsPerSample = self->stZplAenc.m_iAudioBitsPerSample;
    input->m_iAudioChannels = self->stZplAenc.m_iAudioChannels;
    input->m_iAudioCodec = static_cast<int32_t>(self->uiAudioCodecTag);
    if (self->uiAudioSpecificConfigLen != 0) {
        input->m_pbyAudioPrivate = self->aucAudioSpecificConfig;
        input->m_iAudioPrivateSize = sizeof(self->aucAudioSpecificConfig);
    }
}

void fetch_mux_error(omx_tdmbrec_component_PrivateType *self)
{
    self->stMuxError = {};
    // Without a context it fetches nothing.
    (void)QVR_MP4_MUX(MUX_GET_LAST_ERROR, &self->hMux, nullptr, &self->stMuxError);
    if (self->stMuxError.m_pszMessage == nullptr) {
        self->stMuxError.m_pszMessage = "";
    }
}

static OMX_ERRORTYPE open_session_locked(omx_tdmbrec_component_PrivateType *self)
{
    self->hMux = nullptr;
    fill_init(self);
    fill_input(self);
    self->stMuxCloseMem = {.m_pMem = QVR_malloc(TDMBREC_CLOSE_MEMORY_BYTES),
                           .m_iSize = TDMBREC_CLOSE_MEMORY_BYTES};
    self->uiFirstVideoPts = 0;
    // Whatever the result, the close must run and free the blocks.
    self->bMuxOpen = 1;
    const int32_t result = QVR_MP4_MUX(MUX_OPEN, &self->hMux, &self->stMuxInit, &self->stMuxInput);
    if (result < 0) {
        fetch_mux_error(self);
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[Open:%d] Error:%s\n",
                            self->stMuxError.m_iCode, self->stMuxError.m_pszMessage);
        return OMX_ErrorBadParameter;
    }
    self->iMuxOpenResult = 0;
    begin_checkpoints(self);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_mp4_mux_Init(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&lockTDMBRecording);
    const OMX_ERRORTYPE result = self->bMuxOpen != 0 ? OMX_ErrorNone : open_session_locked(self);
    pthread_mutex_unlock(&lockTDMBRecording);
    return result;
}

// The file declares an audio track from its start, and common players refuse a file whose track has
// no frame. A recording without audio gets one frame of silence.
static void complete_audio_track(omx_tdmbrec_component_PrivateType *self)
{
    // channel_pair_element() with max_sfb 0 in both channels, then END.
    // source: ISO/IEC 14496-3, Tables 4.3 and 4.5
    static constexpr uint8_t kSilentPair[] = {0x20, 0, 0, 0, 0, 0, 0x0E};
    if (self->bVideoWritten == 0 || self->bAudioWritten != 0) {
        return;
    }
    mp4_mux_putstream_t frame = {.m_pbyData = kSilentPair,
                                 .m_iDataSize = sizeof(kSilentPair),
                                 .m_iType = MUX_TYPE_AUDIO,
                                 .m_uiTimeStamp = 0,
                                 .m_uiTimeStamp2 = 0,
                                 .m_uiFlags = MUX_FRAME_KEY};
    // If this cannot be written, the close that follows reports it.
    if (QVR_MP4_MUX(MUX_PUTFRAME, &self->hMux, &frame, nullptr) >= 0) {
        note_checkpoint_frame(self, &frame);
    }
}

OMX_ERRORTYPE close_mux_session(omx_tdmbrec_component_PrivateType *self)
{
    OMX_ERRORTYPE result = OMX_ErrorNone;
    complete_audio_track(self);
    finish_checkpoints(self);
    if (QVR_MP4_MUX(MUX_CLOSE, &self->hMux, &self->stMuxCloseMem, nullptr) < 0) {
        fetch_mux_error(self);
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[Close:%d] Error:%s \n",
                            self->stMuxError.m_iCode, self->stMuxError.m_pszMessage);
        // The muxer still holds the file and the blocks; this second call only releases them.
        (void)QVR_MP4_MUX(MUX_CLOSE, &self->hMux, nullptr, nullptr);
        result = OMX_ErrorBadParameter;
    }
    end_checkpoints(self, result == OMX_ErrorNone);
    self->stMuxError.m_pszMessage = nullptr; // the context owned it
    self->hMux = nullptr;
    QVR_free(self->stMuxInit.m_pCacheMem);
    self->stMuxInit.m_pCacheMem = nullptr;
    QVR_free(self->stMuxCloseMem.m_pMem);
    self->stMuxCloseMem = {};
    self->bMuxOpen = 0;
    return result;
}

void reset_mux_session(omx_tdmbrec_component_PrivateType *self)
{
    self->iMuxOpenResult = -1;
}

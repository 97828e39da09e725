#include "component/audio_path.h"

#include "component/audio_encoder.h"
#include "component/component_log.h"
#include "component/process_state.h"
#include "component/time_line.h"
#include "component/zpl_aenc.h"

#include <algorithm>
#include <cstring>

static constexpr uint32_t kBytesPerSamplePair = 4; // 16-bit stereo

static uint32_t *ring_time(uint8_t index)
{
    return &global_ui_AUDIO_PTS[index];
}

static uint32_t *ring_length(uint8_t index)
{
    return &global_ui_AUDIO_PTS[AUDIO_PTS_ENTRIES + index];
}

static uint8_t next_index(uint8_t index)
{
    return static_cast<uint8_t>((index + 1) % AUDIO_PTS_ENTRIES);
}

static bool initialise_encoder(omx_tdmbrec_component_PrivateType *pPrivate,
                               const OMX_BUFFERHEADERTYPE *pBuffer)
{
    if (pPrivate->bEncoderReady == 1) {
        return true;
    }
    memcpy(pPrivate->stZplAencInit.aucFirstPcm, pBuffer->pBuffer + pBuffer->nOffset,
           std::min<uint32_t>(pBuffer->nFilledLen, ZPL_AENC_FIRST_PCM_BYTES));
    if (zpl_aenc_init(&pPrivate->stZplAenc, &pPrivate->stZplAencInit, pPrivate->iAencType,
                      pPrivate->iAencOutput, pPrivate->pfnAacEnc) < 0) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "Audio Dec init error.");
        return false;
    }
    pPrivate->uiAacInputSize = zpl_aenc_getSamplesSize();
    pPrivate->uiAudioFrameMs = 1000 * (pPrivate->uiAacInputSize / kBytesPerSamplePair) /
                               static_cast<uint32_t>(pPrivate->stZplAenc.m_iAudioSamplePerSec);
    pPrivate->bEncoderReady = 1;
    return true;
}

// The first time from time_ms on, in steps of a frame, that lies behind the last frame produced.
static uint32_t lift_above_last_frame(const omx_tdmbrec_component_PrivateType *pPrivate,
                                      uint32_t time_ms)
{
    if (pPrivate->uiLastAudioPts < time_ms) {
        return time_ms;
    }
    const uint64_t frame_ms = std::max<uint32_t>(pPrivate->uiAudioFrameMs, 1);
    const uint64_t frames = (pPrivate->uiLastAudioPts - time_ms) / frame_ms + 1;
    return static_cast<uint32_t>(std::min<uint64_t>(time_ms + frames * frame_ms, UINT32_MAX));
}

// Notes the time of queued PCM; when the ring is full, the PCM counts to the newest entry.
static void queue_time(omx_tdmbrec_component_PrivateType *pPrivate, uint32_t time_ms,
                       uint32_t pcm_bytes)
{
    if (pPrivate->ucAudioPtsCount == AUDIO_PTS_ENTRIES) {
        const uint8_t newest = static_cast<uint8_t>(
            (pPrivate->ucAudioPtsWrite + AUDIO_PTS_ENTRIES - 1) % AUDIO_PTS_ENTRIES);
        *ring_length(newest) = add_ms(*ring_length(newest), pcm_bytes);
        return;
    }
    *ring_time(pPrivate->ucAudioPtsWrite) = lift_above_last_frame(pPrivate, time_ms);
    *ring_length(pPrivate->ucAudioPtsWrite) = pcm_bytes;
    pPrivate->ucAudioPtsWrite = next_index(pPrivate->ucAudioPtsWrite);
    pPrivate->ucAudioPtsCount++;
}

// The time of the frame that is about to be produced.
static uint32_t frame_time(const omx_tdmbrec_component_PrivateType *pPrivate)
{
    if (pPrivate->ucAudioPtsCount == 0) {
        return add_ms(pPrivate->uiLastAudioPts, pPrivate->uiAudioFrameMs);
    }
    // A time queued before a rollback may have fallen behind.
    return lift_above_last_frame(pPrivate, *ring_time(pPrivate->ucAudioPtsRead));
}

// Gives up the entries whose PCM the frame has used: as many as it takes to reach its size.
static void release_times(omx_tdmbrec_component_PrivateType *pPrivate)
{
    uint64_t released_bytes = 0;
    while (pPrivate->ucAudioPtsCount > 0 && released_bytes < pPrivate->uiAacInputSize) {
        released_bytes += *ring_length(pPrivate->ucAudioPtsRead);
        pPrivate->ucAudioPtsRead = next_index(pPrivate->ucAudioPtsRead);
        pPrivate->ucAudioPtsCount--;
    }
}

// Moves the unread PCM to the start of the queue's storage and appends what fits.
// returns the bytes appended
static uint32_t queue_pcm(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                          uint32_t length)
{
    tdmbrec_pcm_queue_t *const pQueue = pPrivate->pPcmQueue;
    memmove(pPrivate->pucPcmBase, pQueue->pucRead, pQueue->uiLength);
    pQueue->pucRead = pPrivate->pucPcmBase;
    const uint32_t appended = std::min<uint32_t>(length, PCM_QUEUE_BYTES - pQueue->uiLength);
    memcpy(pPrivate->pucPcmBase + pQueue->uiLength, pData, appended);
    pQueue->uiLength += appended;
    return appended;
}

// Encodes the oldest frame of the queue. *pFrame stays of kind 0 when that fails.
static void encode_frame(omx_tdmbrec_component_PrivateType *pPrivate, mp4_mux_putstream_t *pFrame)
{
    tdmbrec_pcm_queue_t *const pQueue = pPrivate->pPcmQueue;
    pPrivate->stZplAencInput = {.pPcm = pQueue->pucRead, .uiLength = pPrivate->uiAacInputSize};
    pPrivate->stZplAenc.pOutput = pPrivate->pucAacOut;
    const int32_t result = zpl_aenc_encode(&pPrivate->stZplAenc, &pPrivate->stZplAencInit,
                                           &pPrivate->stZplAencInput, pPrivate->iAencType);
    pQueue->pucRead += pPrivate->uiAacInputSize;
    pQueue->uiLength -= pPrivate->uiAacInputSize;
    if (result < 0) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "zpl_audio_dec_run error: %ld",
                            static_cast<long>(result));
        return;
    }
    pPrivate->uiLastAudioPts = frame_time(pPrivate);
    release_times(pPrivate);
    *pFrame = {.m_pbyData = pPrivate->stZplAenc.pOutput,
               .m_iDataSize = pPrivate->stZplAenc.iOutputLength,
               .m_iType = MUX_TYPE_AUDIO,
               .m_uiTimeStamp = pPrivate->uiLastAudioPts,
               .m_uiTimeStamp2 = pPrivate->uiLastAudioPts,
               .m_uiFlags = MUX_FRAME_KEY};
}

static write_result_t write_complete_frames(omx_tdmbrec_component_PrivateType *pPrivate)
{
    while (pPrivate->pPcmQueue->uiLength >= pPrivate->uiAacInputSize) {
        mp4_mux_putstream_t frame = {};
        encode_frame(pPrivate, &frame);
        const write_result_t result = write_frame(pPrivate, &frame);
        if (result != kWriteDone) {
            return result;
        }
    }
    return kWriteDone;
}

audio_result_t handle_audio_buffer(omx_tdmbrec_component_PrivateType *pPrivate,
                                   OMX_BUFFERHEADERTYPE *pBuffer, uint32_t uiTime,
                                   write_result_t *pResult)
{
    if (!initialise_encoder(pPrivate, pBuffer)) {
        return kAudioRetry;
    }
    const uint8_t *pData = pBuffer->pBuffer + pBuffer->nOffset;
    uint32_t left = pBuffer->nFilledLen;
    pBuffer->nFilledLen = 0;
    if (pPrivate->uiFirstVideoPts == 0 || pPrivate->uiFirstVideoPts > uiTime) {
        return kAudioConsumed;
    }
    queue_time(pPrivate, uiTime, left);
    *pResult = kWriteDone;
    while (left > 0 && *pResult == kWriteDone) {
        const uint32_t appended = queue_pcm(pPrivate, pData, left);
        pData += appended;
        left -= appended;
        *pResult = write_complete_frames(pPrivate);
    }
    return *pResult == kWriteDone ? kAudioConsumed : kAudioStop;
}

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

static bool initialise_encoder(omx_tdmbrec_component_PrivateType *self,
                               const OMX_BUFFERHEADERTYPE *buffer)
{
    if (self->bEncoderReady == 1) {
        return true;
    }
    memcpy(self->stZplAencInit.aucFirstPcm, buffer->pBuffer + buffer->nOffset,
           std::min<uint32_t>(buffer->nFilledLen, ZPL_AENC_FIRST_PCM_BYTES));
    if (zpl_aenc_init(&self->stZplAenc, &self->stZplAencInit, self->iAencType, self->iAencOutput,
                      self->pfnAacEnc) < 0) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "Audio Dec init error.");
        return false;
    }
    self->uiAacInputSize = zpl_aenc_getSamplesSize();
    self->uiAudioFrameMs = 1000 * (self->uiAacInputSize / kBytesPerSamplePair) /
                           static_cast<uint32_t>(self->stZplAenc.m_iAudioSamplePerSec);
    self->bEncoderReady = 1;
    return true;
}

// The first time from time_ms on, in steps of a frame, that lies behind the last frame produced.
static uint32_t lift_above_last_frame(const omx_tdmbrec_component_PrivateType *self,
                                      uint32_t time_ms)
{
    if (self->uiLastAudioPts < time_ms) {
        return time_ms;
    }
    const uint64_t frame_ms = std::max<uint32_t>(self->uiAudioFrameMs, 1);
    const uint64_t frames = (self->uiLastAudioPts - time_ms) / frame_ms + 1;
    return static_cast<uint32_t>(std::min<uint64_t>(time_ms + frames * frame_ms, UINT32_MAX));
}

// Notes the time of queued PCM; when the ring is full, the PCM counts to the newest entry.
static void queue_time(omx_tdmbrec_component_PrivateType *self, uint32_t time_ms,
                       uint32_t pcm_bytes)
{
    if (self->ucAudioPtsCount == AUDIO_PTS_ENTRIES) {
        const uint8_t newest = static_cast<uint8_t>(
            (self->ucAudioPtsWrite + AUDIO_PTS_ENTRIES - 1) % AUDIO_PTS_ENTRIES);
        *ring_length(newest) = add_ms(*ring_length(newest), pcm_bytes);
        return;
    }
    *ring_time(self->ucAudioPtsWrite) = lift_above_last_frame(self, time_ms);
    *ring_length(self->ucAudioPtsWrite) = pcm_bytes;
    self->ucAudioPtsWrite = next_index(self->ucAudioPtsWrite);
    self->ucAudioPtsCount++;
}

// The time of the frame that is about to be produced.
static uint32_t frame_time(const omx_tdmbrec_component_PrivateType *self)
{
    if (self->ucAudioPtsCount == 0) {
        return add_ms(self->uiLastAudioPts, self->uiAudioFrameMs);
    }
    // A time queued before a rollback may have fallen behind.
    return lift_above_last_frame(self, *ring_time(self->ucAudioPtsRead));
}

// Gives up the entries whose PCM the frame has used: as many as it takes to reach its size.
static void release_times(omx_tdmbrec_component_PrivateType *self)
{
    uint64_t released_bytes = 0;
    while (self->ucAudioPtsCount > 0 && released_bytes < self->uiAacInputSize) {
        released_bytes += *ring_length(self->ucAudioPtsRead);
        self->ucAudioPtsRead = next_index(self->ucAudioPtsRead);
        self->ucAudioPtsCount--;
    }
}

// Moves the unread PCM to the start of the queue's storage and appends what fits.
// returns the bytes appended
static uint32_t queue_pcm(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                          uint32_t length)
{
    tdmbrec_pcm_queue_t *const queue = self->pPcmQueue;
    memmove(self->pucPcmBase, queue->pucRead, queue->uiLength);
    queue->pucRead = self->pucPcmBase;
    const uint32_t appended = std::min<uint32_t>(length, PCM_QUEUE_BYTES - queue->uiLength);
    memcpy(self->pucPcmBase + queue->uiLength, data, appended);
    queue->uiLength += appended;
    return appended;
}

// Encodes the oldest frame of the queue. *frame stays of kind 0 when that fails.
static void encode_frame(omx_tdmbrec_component_PrivateType *self, mp4_mux_putstream_t *frame)
{
    tdmbrec_pcm_queue_t *const queue = self->pPcmQueue;
    self->stZplAencInput = {.pPcm = queue->pucRead, .uiLength = self->uiAacInputSize};
    self->stZplAenc.pOutput = self->pucAacOut;
    const int32_t result = zpl_aenc_encode(&self->stZplAenc, &self->stZplAencInit,
                                           &self->stZplAencInput, self->iAencType);
    queue->pucRead += self->uiAacInputSize;
    queue->uiLength -= self->uiAacInputSize;
    if (result < 0) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "zpl_audio_dec_run error: %ld",
                            static_cast<long>(result));
        return;
    }
    self->uiLastAudioPts = frame_time(self);
    release_times(self);
    *frame = {.m_pbyData = self->stZplAenc.pOutput,
              .m_iDataSize = self->stZplAenc.iOutputLength,
              .m_iType = MUX_TYPE_AUDIO,
              .m_uiTimeStamp = self->uiLastAudioPts,
              .m_uiTimeStamp2 = self->uiLastAudioPts,
              .m_uiFlags = MUX_FRAME_KEY};
}

static write_result_t write_complete_frames(omx_tdmbrec_component_PrivateType *self)
{
    while (self->pPcmQueue->uiLength >= self->uiAacInputSize) {
        mp4_mux_putstream_t frame = {};
        encode_frame(self, &frame);
        const write_result_t result = write_frame(self, &frame);
        if (result != kWriteDone) {
            return result;
        }
    }
    return kWriteDone;
}

audio_result_t handle_audio_buffer(omx_tdmbrec_component_PrivateType *self,
                                   OMX_BUFFERHEADERTYPE *buffer, uint32_t time,
                                   write_result_t *result)
{
    if (!initialise_encoder(self, buffer)) {
        return kAudioRetry;
    }
    const uint8_t *data = buffer->pBuffer + buffer->nOffset;
    uint32_t left = buffer->nFilledLen;
    buffer->nFilledLen = 0;
    if (self->uiFirstVideoPts == 0 || self->uiFirstVideoPts > time) {
        return kAudioConsumed;
    }
    queue_time(self, time, left);
    *result = kWriteDone;
    while (left > 0 && *result == kWriteDone) {
        const uint32_t appended = queue_pcm(self, data, left);
        data += appended;
        left -= appended;
        *result = write_complete_frames(self);
    }
    return *result == kWriteDone ? kAudioConsumed : kAudioStop;
}

void reset_audio_path(omx_tdmbrec_component_PrivateType *self)
{
    self->ucAudioPtsRead = 0;
    self->ucAudioPtsWrite = 0;
    self->ucAudioPtsCount = 0;
    self->uiAacInputSize = 0;
    self->uiAudioFrameMs = 0;
    self->uiLastAudioPts = 0;
}

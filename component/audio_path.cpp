#include "component/audio_path.h"

#include "component/audio_encoder.h"
#include "component/component_log.h"
#include "component/losses.h"
#include "component/process_state.h"
#include "component/time_line.h"
#include "component/zpl_aenc.h"

#include <algorithm>
#include <cstring>

static constexpr uint32_t kSamplePairBytes = 4; // 16-bit stereo

static uint32_t *ring_time(uint8_t index)
{
    return &global_ui_AUDIO_PTS[index];
}

static uint32_t *ring_length(uint8_t index)
{
    return &global_ui_AUDIO_PTS[kAudioPtsEntries + index];
}

static uint8_t next_index(uint8_t index)
{
    return static_cast<uint8_t>((index + 1) % kAudioPtsEntries);
}

// Opens the encoder at the first audio buffer of a recording.
static bool initialise_encoder(omx_tdmbrec_component_PrivateType *self,
                               const OMX_BUFFERHEADERTYPE *buffer)
{
    if (self->bEncoderReady == 1) {
        return true;
    }
    memcpy(self->stZplAencInit.aucFirstPcm, buffer->pBuffer + buffer->nOffset,
           std::min<uint32_t>(buffer->nFilledLen, sizeof(self->stZplAencInit.aucFirstPcm)));
    if (zpl_aenc_init(&self->stZplAenc, &self->stZplAencInit, self->iAencType, self->iAencOutput,
                      self->pfnAacEnc) < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Audio Dec init error.");
        note_loss(self, kLostEncoder);
        return false;
    }
    self->uiAacInputSize = zpl_aenc_getSamplesSize();
    self->uiAudioFrameMs = 1000 * (self->uiAacInputSize / kSamplePairBytes) /
                           static_cast<uint32_t>(self->stZplAenc.m_iAudioSamplePerSec);
    self->bEncoderReady = 1;
    return true;
}

// returns: the first time that is time_ms or whole frames later, and after the last frame produced
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

// Saturates: an encoder that fails on every frame never releases an entry.
static uint32_t add_bytes(uint32_t a_bytes, uint32_t b_bytes)
{
    return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{a_bytes} + b_bytes, UINT32_MAX));
}

// Queues the time of PCM. When the ring is full, the PCM belongs to its newest entry.
static void queue_time(omx_tdmbrec_component_PrivateType *self, uint32_t time_ms,
                       uint32_t pcm_bytes)
{
    if (self->ucAudioPtsCount == kAudioPtsEntries) {
        const uint8_t newest =
            static_cast<uint8_t>((self->ucAudioPtsWrite + kAudioPtsEntries - 1) % kAudioPtsEntries);
        *ring_length(newest) = add_bytes(*ring_length(newest), pcm_bytes);
        return;
    }
    *ring_time(self->ucAudioPtsWrite) = lift_above_last_frame(self, time_ms);
    *ring_length(self->ucAudioPtsWrite) = pcm_bytes;
    self->ucAudioPtsWrite = next_index(self->ucAudioPtsWrite);
    self->ucAudioPtsCount++;
}

// returns: the time of the frame that was just encoded (ms)
static uint32_t frame_time(const omx_tdmbrec_component_PrivateType *self)
{
    if (self->ucAudioPtsCount == 0) {
        return add_ms(self->uiLastAudioPts, self->uiAudioFrameMs);
    }
    // Frames produced since the entry was queued may have passed its time.
    return lift_above_last_frame(self, *ring_time(self->ucAudioPtsRead));
}

// Releases as many entries as it takes to reach the size of a frame.
static void release_times(omx_tdmbrec_component_PrivateType *self)
{
    uint64_t released_bytes = 0;
    while (self->ucAudioPtsCount > 0 && released_bytes < self->uiAacInputSize) {
        released_bytes += *ring_length(self->ucAudioPtsRead);
        self->ucAudioPtsRead = next_index(self->ucAudioPtsRead);
        self->ucAudioPtsCount--;
    }
}

// Moves the unread PCM to the start of the queue's storage and appends as much as fits.
// returns: the bytes appended
static uint32_t queue_pcm(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                          uint32_t length)
{
    tdmbrec_pcm_queue_t *const queue = self->pPcmQueue;
    memmove(self->pucPcmBase, queue->pucRead, queue->uiLength);
    queue->pucRead = self->pucPcmBase;
    const uint32_t appended_bytes = std::min<uint32_t>(length, kPcmQueueBytes - queue->uiLength);
    memcpy(self->pucPcmBase + queue->uiLength, data, appended_bytes);
    queue->uiLength += appended_bytes;
    return appended_bytes;
}

// Encodes the oldest frame of the queue.
// out: *frame: unchanged when the encoder fails
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
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "zpl_audio_dec_run error: %ld",
                            static_cast<long>(result));
        note_loss(self, kLostSoundFrameUncoded);
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

static bool ends_recording(write_result_t result)
{
    return result == kWriteFailed || result == kWriteSizeLimit;
}

static write_result_t write_complete_frames(omx_tdmbrec_component_PrivateType *self)
{
    write_result_t result = kWriteNothing;
    while (self->pPcmQueue->uiLength >= self->uiAacInputSize && !ends_recording(result)) {
        mp4_mux_putstream_t frame = {};
        encode_frame(self, &frame);
        result = write_frame(self, &frame);
    }
    return result;
}

write_result_t handle_audio_buffer(omx_tdmbrec_component_PrivateType *self,
                                   OMX_BUFFERHEADERTYPE *buffer, uint32_t time_ms)
{
    if (!initialise_encoder(self, buffer)) {
        return kWriteNothing;
    }
    const uint8_t *data = buffer->pBuffer + buffer->nOffset;
    uint32_t left_bytes = buffer->nFilledLen;
    buffer->nFilledLen = 0;
    if (self->uiFirstVideoPts == 0 || self->uiFirstVideoPts > time_ms) {
        note_loss(self, kLostSoundBeforePicture);
        return kWriteNothing;
    }
    queue_time(self, time_ms, left_bytes);
    write_result_t result = kWriteNothing;
    while (left_bytes > 0 && !ends_recording(result)) {
        const uint32_t appended_bytes = queue_pcm(self, data, left_bytes);
        data += appended_bytes;
        left_bytes -= appended_bytes;
        result = write_complete_frames(self);
    }
    return result;
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

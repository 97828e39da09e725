// The recording's audio encoder: prepared at the start, opened at the first audio buffer, released
// at the stop.
#ifndef COMPONENT_AUDIO_ENCODER_H
#define COMPONENT_AUDIO_ENCODER_H

#include "component/private_record.h"

#include <cstdint>

inline constexpr uint32_t kPcmQueueBytes = 0x200000;

// PCM between the client's buffers and the encoder's frames.
struct tdmbrec_pcm_queue_t {
    uint8_t *pucRead;  // oldest queued byte
    uint32_t uiLength; // bytes queued
};

// Builds the decoder configuration of an AAC LC stream.
// in: sample_rate: Hz
// in: channels: its low 4 bits are used
// out: config: 2 bytes
// out: *length: 2
// returns: 0, or -1 when the sampling rate has no index (nothing is written)
// source: ISO/IEC 14496-3, 1.6.2.1 AudioSpecificConfig, Table 1.18 samplingFrequencyIndex
[[nodiscard]] int32_t getAACEncDSI(uint32_t sample_rate, uint32_t channels, uint8_t config[2],
                                   uint32_t *length);

// Allocates the PCM queue and the output buffer and describes the encoder of the next recording.
// returns: OMX_ErrorNone, or OMX_ErrorInsufficientResources (nothing is kept)
// thread: the client's, before the recording is active
[[nodiscard]] OMX_ERRORTYPE omx_tdmbrec_audio_enc_Init(omx_tdmbrec_component_PrivateType *self);

// Closes the encoder if it was opened, and frees the queue and the output buffer.
// returns: OMX_ErrorNone, or 0x90000000 when the encoder fails to close
// thread: the end of a recording
OMX_ERRORTYPE omx_tdmbrec_audio_enc_DeInit(omx_tdmbrec_component_PrivateType *self);

// Discards the decoder configuration. The file needs it until it is closed.
// thread: the end of a recording
void reset_audio_configuration(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_AUDIO_ENCODER_H

#include "component/audio_encoder.h"

#include "aacenc/aac_enc.h"
#include "component/shared_fields.h"
#include "component/zpl_aenc.h"
#include "platform/qvr_memory.h"

#include <array>
#include <cstdlib>
#include <cstring>

static constexpr size_t kPcmQueueDescriptorBytes = 80;
static_assert(kPcmQueueDescriptorBytes >= sizeof(tdmbrec_pcm_queue_t));
static constexpr size_t kAacOutBytes = 0x200000;

static constexpr uint32_t kAacLc = 2; // audioObjectType

// Hz, by samplingFrequencyIndex
// source: ISO/IEC 14496-3, Table 1.18
static constexpr std::array<uint32_t, 13> kSamplingFrequency = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

int32_t getAACEncDSI(uint32_t sample_rate, uint32_t channels, uint8_t config[2], uint32_t *length)
{
    for (uint32_t index = 0; index < kSamplingFrequency.size(); index++) {
        if (kSamplingFrequency[index] == sample_rate) {
            // audioObjectType (5 bits), samplingFrequencyIndex (4), channelConfiguration (4),
            // frameLengthFlag, dependsOnCoreCoder, extensionFlag (all 0)
            const uint32_t bits = kAacLc << 11 | index << 7 | (channels & 0xF) << 3;
            config[0] = static_cast<uint8_t>(bits >> 8);
            config[1] = static_cast<uint8_t>(bits);
            *length = 2;
            return 0;
        }
    }
    return -1;
}

static void free_buffers(omx_tdmbrec_component_PrivateType *self)
{
    QVR_free(self->pucAacOut);
    self->pucAacOut = nullptr;
    QVR_free(self->pucPcmBase);
    self->pucPcmBase = nullptr;
    QVR_free(self->pPcmQueue);
    self->pPcmQueue = nullptr;
}

static bool allocate_buffers(omx_tdmbrec_component_PrivateType *self)
{
    self->pPcmQueue = static_cast<tdmbrec_pcm_queue_t *>(QVR_malloc(kPcmQueueDescriptorBytes));
    self->pucPcmBase = static_cast<uint8_t *>(QVR_malloc(kPcmQueueBytes));
    self->pucAacOut = static_cast<uint8_t *>(QVR_malloc(kAacOutBytes));
    if (self->pPcmQueue == nullptr || self->pucPcmBase == nullptr || self->pucAacOut == nullptr) {
        free_buffers(self);
        return false;
    }
    memset(self->pucPcmBase, 0, kPcmQueueBytes);
    memset(self->pucAacOut, 0, kAacOutBytes);
    *self->pPcmQueue = {.pucRead = self->pucPcmBase, .uiLength = 0};
    return true;
}

static void describe_encoder(omx_tdmbrec_component_PrivateType *self)
{
    self->stZplAenc = {};
    self->stZplAencInit = {};
    self->stZplAencInput = {};
    self->astMemFuncs = {.pfnMalloc = malloc,
                         .pReserved1 = nullptr,
                         .pfnFree = free,
                         .pReserved3 = nullptr,
                         .pfnMemcpy = memcpy,
                         .pfnMemset = memset,
                         .pfnRealloc = realloc,
                         .pfnMemmove = memmove};
    self->stZplAenc.pstMemory = &self->astMemFuncs;
    self->stZplAenc.iState = kZplStateRun;
    self->stZplAenc.m_iAudioSamplePerSec = static_cast<int32_t>(load_shared(self->uiSampleRate));
    self->stZplAenc.m_iAudioChannels = static_cast<int32_t>(self->uiChannels);
    self->stZplAenc.m_iAudioBitsPerSample = static_cast<int32_t>(self->uiBitsPerSample);
    self->stZplAenc.m_iAudioBitRates = static_cast<int32_t>(self->uiBitRate);
    self->pfnAacEnc = QVR_AAC_ENC;
    self->iAencType = kZplTypeAac;
    self->iAencOutput = 0;
}

OMX_ERRORTYPE omx_tdmbrec_audio_enc_Init(omx_tdmbrec_component_PrivateType *self)
{
    if (!allocate_buffers(self)) {
        return OMX_ErrorInsufficientResources;
    }
    self->bEncoderReady = 0;
    describe_encoder(self);
    // A rate without an index leaves the length 0: the file then carries no configuration.
    (void)getAACEncDSI(static_cast<uint32_t>(self->stZplAenc.m_iAudioSamplePerSec),
                       self->uiChannels, self->aucAudioSpecificConfig,
                       &self->uiAudioSpecificConfigLen);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_audio_enc_DeInit(omx_tdmbrec_component_PrivateType *self)
{
    OMX_ERRORTYPE result = OMX_ErrorNone;
    if (self->bEncoderReady == 1) {
        self->bEncoderReady = 0;
        if (zpl_aenc_close(&self->stZplAenc) < 0) {
            result = OMX_ErrorVendorStartUnused;
        }
    }
    free_buffers(self);
    return result;
}

void reset_audio_configuration(omx_tdmbrec_component_PrivateType *self)
{
    self->uiAudioSpecificConfigLen = 0;
}

#include "component/audio_encoder.h"

#include "component/shared_fields.h"
#include "component/zpl_aenc.h"
#include "platform/qvr_memory.h"

#include <array>
#include <cstdlib>
#include <cstring>

static constexpr size_t kPcmQueueDescriptorBytes = 80;
static_assert(kPcmQueueDescriptorBytes >= sizeof(tdmbrec_pcm_queue_t));
static constexpr size_t kAacOutBytes = 0x200000;

// samplingFrequencyIndex, ISO/IEC 14496-3, Table 1.18 (Hz)
static constexpr std::array<uint32_t, 13> kSamplingFrequency = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

int32_t getAACEncDSI(uint32_t sampleRate, uint32_t channels, uint8_t aucConfig[2],
                     uint32_t *puiLength)
{
    for (uint32_t index = 0; index < kSamplingFrequency.size(); index++) {
        if (kSamplingFrequency[index] == sampleRate) {
            // audioObjectType 2 (5 bits), samplingFrequencyIndex (4), channelConfiguration (4),
            // frameLengthFlag, dependsOnCoreCoder, extensionFlag (0)
            aucConfig[0] = static_cast<uint8_t>(0x10 | (index >> 1));
            aucConfig[1] = static_cast<uint8_t>(((index & 1) << 7) | ((channels & 15) << 3));
            *puiLength = 2;
            return 0;
        }
    }
    return -1;
}

static void free_buffers(omx_tdmbrec_component_PrivateType *pPrivate)
{
    QVR_free(pPrivate->pucAacOut);
    pPrivate->pucAacOut = nullptr;
    QVR_free(pPrivate->pucPcmBase);
    pPrivate->pucPcmBase = nullptr;
    QVR_free(pPrivate->pPcmQueue);
    pPrivate->pPcmQueue = nullptr;
}

static bool allocate_buffers(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->pPcmQueue = static_cast<tdmbrec_pcm_queue_t *>(QVR_malloc(kPcmQueueDescriptorBytes));
    pPrivate->pucPcmBase = static_cast<uint8_t *>(QVR_malloc(PCM_QUEUE_BYTES));
    pPrivate->pucAacOut = static_cast<uint8_t *>(QVR_malloc(kAacOutBytes));
    if (pPrivate->pPcmQueue == nullptr || pPrivate->pucPcmBase == nullptr ||
        pPrivate->pucAacOut == nullptr) {
        free_buffers(pPrivate);
        return false;
    }
    memset(pPrivate->pucPcmBase, 0, PCM_QUEUE_BYTES);
    memset(pPrivate->pucAacOut, 0, kAacOutBytes);
    *pPrivate->pPcmQueue = {.pucRead = pPrivate->pucPcmBase, .uiLength = 0};
    return true;
}

static void describe_encoder(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->stZplAenc = {};
    pPrivate->stZplAencInit = {};
    pPrivate->stZplAencInput = {};
    pPrivate->astMemFuncs = {.pfnMalloc = malloc,
                             .pReserved1 = nullptr,
                             .pfnFree = free,
                             .pReserved3 = nullptr,
                             .pfnMemcpy = memcpy,
                             .pfnMemset = memset,
                             .pfnRealloc = realloc,
                             .pfnMemmove = memmove};
    pPrivate->stZplAenc.pstMemory = &pPrivate->astMemFuncs;
    pPrivate->stZplAenc.iState = kZplStateRun;
    pPrivate->stZplAenc.m_iAudioSamplePerSec =
        static_cast<int32_t>(load_shared(pPrivate->uiSampleRate));
    pPrivate->stZplAenc.m_iAudioChannels = static_cast<int32_t>(pPrivate->uiChannels);
    pPrivate->stZplAenc.m_iAudioBitsPerSample = static_cast<int32_t>(pPrivate->uiBitsPerSample);
    pPrivate->stZplAenc.m_iAudioBitRates = static_cast<int32_t>(pPrivate->uiBitRate);
    pPrivate->pfnAacEnc = QVR_AAC_ENC;
    pPrivate->iAencType = ZPL_AENC_TYPE_AAC;
    pPrivate->iAencOutput = 0;
}

OMX_ERRORTYPE omx_tdmbrec_audio_enc_Init(omx_tdmbrec_component_PrivateType *pPrivate)
{
    if (!allocate_buffers(pPrivate)) {
        return OMX_ErrorInsufficientResources;
    }
    pPrivate->bEncoderReady = 0;
    describe_encoder(pPrivate);
    // A rate without an index leaves the length 0: the file then carries no configuration.
    (void)getAACEncDSI(static_cast<uint32_t>(pPrivate->stZplAenc.m_iAudioSamplePerSec),
                       pPrivate->uiChannels & 0xFF, pPrivate->aucAudioSpecificConfig,
                       &pPrivate->uiAudioSpecificConfigLen);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_audio_enc_DeInit(omx_tdmbrec_component_PrivateType *pPrivate)
{
    OMX_ERRORTYPE result = OMX_ErrorNone;
    if (pPrivate->bEncoderReady == 1) {
        pPrivate->bEncoderReady = 0;
        if (zpl_aenc_close(&pPrivate->stZplAenc) < 0) {
            result = OMX_ErrorVendorStartUnused;
        }
    }
    if (pPrivate->pPcmQueue != nullptr) {
        pPrivate->pPcmQueue->pucRead = pPrivate->pucPcmBase;
        free_buffers(pPrivate);
    }
    return result;
}

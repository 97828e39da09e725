#include "component/zpl_aenc.h"

#include "component/component_log.h"

#include <cstring>

static constexpr int32_t kStreamBufferBytes = 2048;
static constexpr int32_t kSamplesPerChannel = 1024;
static constexpr int32_t kDefaultSampleBits = 16;
static constexpr char kRuler[] = "---------------------------------------------------"; // 51
static_assert(sizeof(kRuler) == 51 + 1);

static tdmbrec_encoder_function_t gspfAEnc;
static AacEncAudioInfo gstAudioInfo;
static AacEncStreamInfo gstStreamInfo;
static AacEncInitParams gstInitParams;
static AacEncCallbacks *gpstCallbacks;
static uint8_t *gpucStreamBuffer;
static uint8_t *gpucPcmBuffer;
static int32_t giSampleBits;
static int32_t giChannels;
static int32_t giSampleRate;
static int32_t giSamplesPerChannel;
static uint64_t gullOutputBytes;

static void log_settings(const zpl_aenc_t *pZpl)
{
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "%s", kRuler);
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "=> pZpl->m_iAudioSamplePerSec (%d) ",
                        pZpl->m_iAudioSamplePerSec);
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "=> pZpl->m_iAudioChannels (%d)",
                        pZpl->m_iAudioChannels);
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "=> pZpl->m_iAudioBitsPerSample (%d)",
                        pZpl->m_iAudioBitsPerSample);
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "=> pZpl->m_iAudioBitRates (%d)",
                        pZpl->m_iAudioBitRates);
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "%s", kRuler);
}

static void fill_records(const zpl_aenc_t *pZpl, const zpl_aenc_init_t *pInit, int32_t outputType)
{
    gstAudioInfo.sampleRate = pZpl->m_iAudioSamplePerSec;
    gstAudioInfo.channels = pZpl->m_iAudioChannels;
    gstAudioInfo.deinterleave = 1;
    giSampleBits =
        pZpl->m_iAudioBitsPerSample != 0 ? pZpl->m_iAudioBitsPerSample : kDefaultSampleBits;
    gstStreamInfo.bitRate = pZpl->m_iAudioBitRates;
    gstStreamInfo.channels = pZpl->m_iAudioChannels;
    gstInitParams.audioInfo = &gstAudioInfo;
    gstInitParams.streamInfo = &gstStreamInfo;
    memcpy(gstInitParams.reservedWords, pInit->aucFirstPcm + 16,
           sizeof(gstInitParams.reservedWords));
    gstInitParams.outputFormat =
        outputType == ZPL_AENC_OUTPUT_ADTS ? AACENC_FORMAT_ADTS : AACENC_FORMAT_RAW;
}

static void free_buffers(const tdmbrec_memory_functions_t *pMemory)
{
    pMemory->pfnFree(gpucPcmBuffer);
    gpucPcmBuffer = nullptr;
    pMemory->pfnFree(gpucStreamBuffer);
    gpucStreamBuffer = nullptr;
    pMemory->pfnFree(gpstCallbacks);
    gpstCallbacks = nullptr;
}

static int32_t allocate_callbacks(const tdmbrec_memory_functions_t *pMemory)
{
    gpstCallbacks = static_cast<AacEncCallbacks *>(pMemory->pfnMalloc(sizeof(AacEncCallbacks)));
    if (gpstCallbacks == nullptr) {
        return -1;
    }
    *gpstCallbacks = {.allocate = pMemory->pfnMalloc,
                      .release = pMemory->pfnFree,
                      .copy = pMemory->pfnMemcpy,
                      .fill = pMemory->pfnMemset,
                      .reallocate = pMemory->pfnRealloc,
                      .move = pMemory->pfnMemmove};
    gstInitParams.callbacks = gpstCallbacks;
    return 0;
}

static int32_t allocate_buffers(const zpl_aenc_t *pZpl)
{
    gpucStreamBuffer = static_cast<uint8_t *>(pZpl->pstMemory->pfnMalloc(kStreamBufferBytes));
    if (gpucStreamBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                            ": [ZPL_CORE] zpl_aenc_init gpucStreamBuffer allocation fail\n");
        return -1;
    }
    gstStreamInfo.output = gpucStreamBuffer;
    const size_t pcm_bytes = static_cast<size_t>(kSamplesPerChannel) *
                             static_cast<size_t>(pZpl->m_iAudioChannels) * sizeof(int16_t);
    gpucPcmBuffer = static_cast<uint8_t *>(pZpl->pstMemory->pfnMalloc(pcm_bytes));
    if (gpucPcmBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                            ": [ZPL_CORE] zpl_aenc_init gpucPcmBuffer allocation fail\n");
        return -1;
    }
    gstAudioInfo.pcm = static_cast<const int16_t *>(static_cast<const void *>(gpucPcmBuffer));
    return 0;
}

static int32_t open_encoder(zpl_aenc_t *pZpl)
{
    if (pZpl->iState != kZplStateInitialise && pZpl->iState != kZplStateRun) {
        return 0;
    }
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "@@@@@ init Start");
    const int32_t result = gspfAEnc(AACENC_OP_INIT, &pZpl->hEncoder, &gstInitParams, nullptr);
    if (result < 0) {
        __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                            ": [ZPL_CORE:Err%d] gspfAEnc AUDIO_INIT failed \n", result);
        (void)gspfAEnc(AACENC_OP_CLOSE, &pZpl->hEncoder, nullptr, nullptr);
        return result;
    }
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "@@@@@ init End ");
    return result;
}

// Takes over what the encoder says of its frames.
static int32_t take_geometry(zpl_aenc_t *pZpl, int32_t result)
{
    if (gstStreamInfo.channels == 0 || gstStreamInfo.sampleRate == 0 ||
        gstStreamInfo.samplesPerChannel == 0) {
        __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                            ": [ZPL_CORE] Error invalid paramters [ch:%d, samplerate: %d, "
                            "bitPersample%d, samplePerchannel%d]\n",
                            gstStreamInfo.channels, gstStreamInfo.sampleRate, giSampleBits,
                            gstStreamInfo.samplesPerChannel);
        if (pZpl->hEncoder != nullptr) {
            (void)gspfAEnc(AACENC_OP_CLOSE, &pZpl->hEncoder, nullptr, nullptr);
        }
        return -1;
    }
    __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                        ": [ZPL_CORE] [channel:%4d, samplerate :%4d] \n", gstStreamInfo.channels,
                        gstStreamInfo.sampleRate);
    giChannels = gstStreamInfo.channels;
    giSamplesPerChannel = gstStreamInfo.samplesPerChannel;
    giSampleRate = gstStreamInfo.sampleRate;
    __android_log_print(ANDROID_LOG_INFO, ZPL_AENC_LOG_TAG, "### Enc Init Done, ret(%d)", result);
    return result;
}

static int32_t init_with_buffers(zpl_aenc_t *pZpl)
{
    if (allocate_callbacks(pZpl->pstMemory) < 0 || allocate_buffers(pZpl) < 0) {
        return -1;
    }
    const int32_t result = open_encoder(pZpl);
    return result < 0 ? result : take_geometry(pZpl, result);
}

int32_t zpl_aenc_init(zpl_aenc_t *pZpl, zpl_aenc_init_t *pInit, int32_t aencType,
                      int32_t outputType, tdmbrec_encoder_function_t pfnEncoder)
{
    gspfAEnc = pfnEncoder;
    if (gspfAEnc == nullptr || aencType != ZPL_AENC_TYPE_AAC) {
        __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                            ": [ZPL_CORE] audio decoder not found (iAencType: %d) \n", aencType);
        gspfAEnc = nullptr;
        return -1;
    }
    pZpl->pstMemory->pfnMemset(&gstAudioInfo, 0, sizeof(gstAudioInfo));
    pZpl->pstMemory->pfnMemset(&gstStreamInfo, 0, sizeof(gstStreamInfo));
    pZpl->pstMemory->pfnMemset(&gstInitParams, 0, sizeof(gstInitParams));
    gullOutputBytes = 0;
    log_settings(pZpl);
    fill_records(pZpl, pInit, outputType);
    const int32_t result = init_with_buffers(pZpl);
    if (result < 0) {
        free_buffers(pZpl->pstMemory);
    }
    return result;
}

uint32_t zpl_aenc_getSamplesSize(void)
{
    return static_cast<uint32_t>(giSampleBits / 8 * giChannels * giSamplesPerChannel);
}

int32_t zpl_aenc_encode(zpl_aenc_t *pZpl, const zpl_aenc_init_t *pInit,
                        const zpl_aenc_input_t *pInput, int32_t aencType)
{
    (void)pInit;
    (void)aencType;
    if (pZpl->iState == kZplStateOff || pZpl->iState == kZplStateStopped) {
        return 0;
    }
    if (pZpl->iState != kZplStateRun) {
        return -1;
    }
    // Aligned: the queue's storage is an allocated block, and its read position is whole frames, of
    // an even number of bytes each, from the start of it.
    gstAudioInfo.pcm = reinterpret_cast<const int16_t *>(static_cast<const void *>(pInput->pPcm));
    const int32_t result =
        gspfAEnc(AACENC_OP_ENCODE, &pZpl->hEncoder, &gstAudioInfo, &gstStreamInfo);
    if (result < 0) {
        __android_log_print(ANDROID_LOG_ERROR, ZPL_AENC_LOG_TAG,
                            ": [ZPL_CORE] ZPL_Audio_Enc_run error\n");
        return result;
    }
    pZpl->iOutputLength = gstStreamInfo.outputBytes;
    pZpl->pOutput = gstStreamInfo.output;
    gullOutputBytes += static_cast<uint64_t>(gstStreamInfo.outputBytes);
    return 0;
}

int32_t zpl_aenc_close(zpl_aenc_t *pZpl)
{
    int32_t result = 0;
    if (gspfAEnc != nullptr &&
        (pZpl->iState == kZplStateInitialise || pZpl->iState == kZplStateRun)) {
        result = gspfAEnc(AACENC_OP_CLOSE, &pZpl->hEncoder, nullptr, nullptr);
    }
    free_buffers(pZpl->pstMemory);
    return result;
}

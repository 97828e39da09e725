#include "component/zpl_aenc.h"

#include "aacenc/aac_enc.h"
#include "platform/android_log.h"

#include <cstring>

static constexpr char kZplLogTag[] = "ZPL_AENC";
static constexpr int32_t kStreamBufferBytes = 2048;
static constexpr int32_t kSamplesPerChannel = 1024;
static constexpr int32_t kDefaultSampleBits = 16;
static constexpr size_t kReservedWordsOffset = 16; // in the first PCM
static constexpr char kRuler[] = "---------------------------------------------------";
static_assert(sizeof(kRuler) == 51 + 1);

static tdmbrec_encoder_function_t gspfAEnc;
static AacEncAudioInfo audio_info;
static AacEncStreamInfo stream_info;
static AacEncInitParams init_params;
static AacEncCallbacks *callbacks;
static uint8_t *gpucStreamBuffer;
static uint8_t *gpucPcmBuffer;
static int32_t sample_bits;
static int32_t channels;
static int32_t samples_per_channel;
static uint64_t output_bytes; // the total; nothing reads it

static void log_settings(const zpl_aenc_t *zpl)
{
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "%s", kRuler);
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "=> pZpl->m_iAudioSamplePerSec (%d) ",
                        zpl->m_iAudioSamplePerSec);
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "=> pZpl->m_iAudioChannels (%d)",
                        zpl->m_iAudioChannels);
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "=> pZpl->m_iAudioBitsPerSample (%d)",
                        zpl->m_iAudioBitsPerSample);
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "=> pZpl->m_iAudioBitRates (%d)",
                        zpl->m_iAudioBitRates);
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "%s", kRuler);
}

static void fill_records(const zpl_aenc_t *zpl, const zpl_aenc_init_t *init, int32_t output_type)
{
    audio_info.sampleRate = zpl->m_iAudioSamplePerSec;
    audio_info.channels = zpl->m_iAudioChannels;
    audio_info.deinterleave = 1;
    sample_bits = zpl->m_iAudioBitsPerSample != 0 ? zpl->m_iAudioBitsPerSample : kDefaultSampleBits;
    stream_info.bitRate = zpl->m_iAudioBitRates;
    stream_info.channels = zpl->m_iAudioChannels;
    init_params.audioInfo = &audio_info;
    init_params.streamInfo = &stream_info;
    memcpy(init_params.reservedWords, init->aucFirstPcm + kReservedWordsOffset,
           sizeof(init_params.reservedWords));
    init_params.outputFormat =
        output_type == kZplOutputAdts ? AACENC_FORMAT_ADTS : AACENC_FORMAT_RAW;
}

static void free_buffers(const tdmbrec_memory_functions_t *memory)
{
    memory->pfnFree(gpucPcmBuffer);
    gpucPcmBuffer = nullptr;
    memory->pfnFree(gpucStreamBuffer);
    gpucStreamBuffer = nullptr;
    memory->pfnFree(callbacks);
    callbacks = nullptr;
}

static int32_t allocate_callbacks(const tdmbrec_memory_functions_t *memory)
{
    callbacks = static_cast<AacEncCallbacks *>(memory->pfnMalloc(sizeof(AacEncCallbacks)));
    if (callbacks == nullptr) {
        return -1;
    }
    *callbacks = {.allocate = memory->pfnMalloc,
                  .release = memory->pfnFree,
                  .copy = memory->pfnMemcpy,
                  .fill = memory->pfnMemset,
                  .reallocate = memory->pfnRealloc,
                  .move = memory->pfnMemmove};
    init_params.callbacks = callbacks;
    return 0;
}

static int32_t allocate_buffers(const zpl_aenc_t *zpl)
{
    gpucStreamBuffer = static_cast<uint8_t *>(zpl->pstMemory->pfnMalloc(kStreamBufferBytes));
    if (gpucStreamBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                            ": [ZPL_CORE] zpl_aenc_init gpucStreamBuffer allocation fail\n");
        return -1;
    }
    stream_info.output = gpucStreamBuffer;
    const size_t pcm_bytes = static_cast<size_t>(kSamplesPerChannel) *
                             static_cast<size_t>(zpl->m_iAudioChannels) * sizeof(int16_t);
    gpucPcmBuffer = static_cast<uint8_t *>(zpl->pstMemory->pfnMalloc(pcm_bytes));
    if (gpucPcmBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                            ": [ZPL_CORE] zpl_aenc_init gpucPcmBuffer allocation fail\n");
        return -1;
    }
    audio_info.pcm = static_cast<const int16_t *>(static_cast<const void *>(gpucPcmBuffer));
    return 0;
}

static int32_t open_encoder(zpl_aenc_t *zpl)
{
    if (zpl->iState != kZplStateInitialise && zpl->iState != kZplStateRun) {
        return 0;
    }
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "@@@@@ init Start");
    const int32_t result = gspfAEnc(AACENC_OP_INIT, &zpl->hEncoder, &init_params, nullptr);
    if (result < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                            ": [ZPL_CORE:Err%d] gspfAEnc AUDIO_INIT failed \n", result);
        (void)gspfAEnc(AACENC_OP_CLOSE, &zpl->hEncoder, nullptr, nullptr);
        return result;
    }
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "@@@@@ init End ");
    return result;
}

// Takes the frame's geometry from the encoder.
static int32_t take_geometry(zpl_aenc_t *zpl, int32_t result)
{
    if (stream_info.channels == 0 || stream_info.sampleRate == 0 ||
        stream_info.samplesPerChannel == 0) {
        __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                            ": [ZPL_CORE] Error invalid paramters [ch:%d, samplerate: %d, "
                            "bitPersample%d, samplePerchannel%d]\n",
                            stream_info.channels, stream_info.sampleRate, sample_bits,
                            stream_info.samplesPerChannel);
        if (zpl->hEncoder != nullptr) {
            (void)gspfAEnc(AACENC_OP_CLOSE, &zpl->hEncoder, nullptr, nullptr);
        }
        return -1;
    }
    __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                        ": [ZPL_CORE] [channel:%4d, samplerate :%4d] \n", stream_info.channels,
                        stream_info.sampleRate);
    channels = stream_info.channels;
    samples_per_channel = stream_info.samplesPerChannel;
    __android_log_print(ANDROID_LOG_INFO, kZplLogTag, "### Enc Init Done, ret(%d)", result);
    return result;
}

static int32_t init_with_buffers(zpl_aenc_t *zpl)
{
    if (allocate_callbacks(zpl->pstMemory) < 0 || allocate_buffers(zpl) < 0) {
        return -1;
    }
    const int32_t result = open_encoder(zpl);
    return result < 0 ? result : take_geometry(zpl, result);
}

int32_t zpl_aenc_init(zpl_aenc_t *zpl, const zpl_aenc_init_t *init, int32_t aenc_type,
                      int32_t output_type, tdmbrec_encoder_function_t encoder)
{
    gspfAEnc = encoder;
    if (gspfAEnc == nullptr || aenc_type != kZplTypeAac) {
        __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                            ": [ZPL_CORE] audio decoder not found (iAencType: %d) \n", aenc_type);
        gspfAEnc = nullptr;
        return -1;
    }
    zpl->pstMemory->pfnMemset(&audio_info, 0, sizeof(audio_info));
    zpl->pstMemory->pfnMemset(&stream_info, 0, sizeof(stream_info));
    zpl->pstMemory->pfnMemset(&init_params, 0, sizeof(init_params));
    output_bytes = 0;
    log_settings(zpl);
    fill_records(zpl, init, output_type);
    const int32_t result = init_with_buffers(zpl);
    if (result < 0) {
        free_buffers(zpl->pstMemory);
    }
    return result;
}

uint32_t zpl_aenc_getSamplesSize(void)
{
    return static_cast<uint32_t>(sample_bits / 8 * channels * samples_per_channel);
}

int32_t zpl_aenc_encode(zpl_aenc_t *zpl, const zpl_aenc_init_t *, const zpl_aenc_input_t *input,
                        int32_t)
{
    if (zpl->iState == kZplStateOff || zpl->iState == kZplStateStopped) {
        return 0;
    }
    if (zpl->iState != kZplStateRun) {
        return -1;
    }
    // Aligned: the PCM is whole frames after the start of an allocated block, and a frame has an
    // even number of bytes.
    audio_info.pcm = reinterpret_cast<const int16_t *>(static_cast<const void *>(input->pPcm));
    const int32_t result = gspfAEnc(AACENC_OP_ENCODE, &zpl->hEncoder, &audio_info, &stream_info);
    if (result < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kZplLogTag,
                            ": [ZPL_CORE] ZPL_Audio_Enc_run error\n");
        return result;
    }
    zpl->iOutputLength = stream_info.outputBytes;
    zpl->pOutput = stream_info.output;
    output_bytes += static_cast<uint64_t>(stream_info.outputBytes);
    return 0;
}

int32_t zpl_aenc_close(zpl_aenc_t *zpl)
{
    int32_t result = 0;
    if (gspfAEnc != nullptr &&
        (zpl->iState == kZplStateInitialise || zpl->iState == kZplStateRun)) {
        result = gspfAEnc(AACENC_OP_CLOSE, &zpl->hEncoder, nullptr, nullptr);
    }
    free_buffers(zpl->pstMemory);
    return result;
}

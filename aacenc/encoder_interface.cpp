#include "aacenc/aac_enc.h"
#include "aacenc/encoder_setup.h"
#include "aacenc/encoder_state.h"
#include "aacenc/frame_driver.h"

static constexpr size_t kChannelPcmBytes = kFrameLines * sizeof(int16_t);

static bool params_complete(const AacEncInitParams *params)
{
    return params != nullptr && params->audioInfo != nullptr && params->streamInfo != nullptr &&
           params->callbacks != nullptr && params->callbacks->allocate != nullptr &&
           params->callbacks->release != nullptr && params->callbacks->fill != nullptr;
}

// Accepts a half-built handle.
static void release_handle(AacEncHandle *handle)
{
    const AacEncCallbacks *callbacks = handle->callbacks;
    if (handle->right != nullptr) {
        callbacks->release(handle->right);
    }
    if (handle->left != nullptr) {
        callbacks->release(handle->left);
    }
    if (handle->workBlock != nullptr) {
        callbacks->release(handle->workBlock);
    }
    callbacks->release(handle);
}

static AacEncHandle *allocate_handle(const AacEncCallbacks *callbacks)
{
    auto *handle = static_cast<AacEncHandle *>(callbacks->allocate(sizeof(AacEncHandle)));
    if (handle != nullptr) {
        callbacks->fill(handle, 0, sizeof(AacEncHandle));
    }
    return handle;
}

static void read_config(const AacEncInitParams *params, AacEncConfig *config)
{
    *config = {
        .channels = params->audioInfo->channels,
        .sampleRate = params->audioInfo->sampleRate,
        .pns = params->pns,
        .tns = params->tns,
        .mpeg2Id = params->mpeg2Id != 0 ? 1 : 0,
        .outputFormat = params->outputFormat,
        .bitRate = params->streamInfo->bitRate,
    };
}

static bool allocate_blocks(AacEncHandle *handle, bool deinterleave)
{
    const AacEncCallbacks *callbacks = handle->callbacks;
    handle->workBlock = static_cast<uint8_t *>(callbacks->allocate(kWorkBlockBytes));
    if (handle->workBlock == nullptr) {
        return false;
    }
    if (!deinterleave) {
        return true;
    }
    handle->left = static_cast<int16_t *>(callbacks->allocate(kChannelPcmBytes));
    if (handle->left == nullptr) {
        return false;
    }
    if (handle->config.channels != 2) {
        return true;
    }
    handle->right = static_cast<int16_t *>(callbacks->allocate(kChannelPcmBytes));
    return handle->right != nullptr;
}

static int32_t set_up(AacEncHandle *handle, const AacEncInitParams *params)
{
    handle->callbacks = params->callbacks;
    read_config(params, &handle->config);
    if (!allocate_blocks(handle, params->audioInfo->deinterleave == 1)) {
        return AACENC_ERR_MEMORY;
    }
    (void)AACEnc_Create(handle, handle->workBlock); // always 0
    switch (AACEnc_Init(handle->state, &handle->config)) {
    case 0:
        return AACENC_OK;
    case kInitBadConfig:
        return AACENC_ERR_CONFIG;
    case kInitBadSampleRate:
        return AACENC_ERR_SAMPLE_RATE;
    default: // no other result exists
        return AACENC_ERR_INIT;
    }
}

static int32_t open_encoder(void **slot, AacEncInitParams *params)
{
    *slot = nullptr;
    if (!params_complete(params)) {
        return AACENC_ERR_INIT;
    }
    AacEncHandle *handle = allocate_handle(params->callbacks);
    if (handle == nullptr) {
        return AACENC_ERR_MEMORY;
    }
    const int32_t result = set_up(handle, params);
    if (result != AACENC_OK) {
        release_handle(handle);
        return result;
    }
    params->streamInfo->channels = handle->config.channels;
    params->streamInfo->sampleRate = handle->config.sampleRate;
    params->streamInfo->samplesPerChannel = AACENC_FRAME_SAMPLES;
    params->outputBufferBytes = AACENC_OUTPUT_BYTES;
    *slot = handle;
    return AACENC_OK;
}

static void split_pairs(const int16_t *pairs, int16_t *left, int16_t *right)
{
    for (int32_t i = 0; i < kFrameLines; i++) {
        left[i] = pairs[2 * i];
        right[i] = pairs[2 * i + 1];
    }
}

static int32_t encode_frame(AacEncHandle *handle, const AacEncAudioInfo *audio,
                            AacEncStreamInfo *stream)
{
    if (audio == nullptr || stream == nullptr || stream->output == nullptr) {
        return AACENC_ERR_FRAME;
    }
    const int16_t *left = audio->pcm;
    const int16_t *right = audio->pcmSecond;
    if (audio->deinterleave == 1 && handle->config.channels == 2) {
        if (handle->right == nullptr) {
            return AACENC_ERR_FRAME;
        }
        right = nullptr;
        if (left != nullptr) {
            split_pairs(left, handle->left, handle->right);
            left = handle->left;
            right = handle->right;
        }
    }
    const int32_t result =
        AACEnc_EncodeFrame(handle->state, left, right, stream->output, &stream->outputBytes);
    return result == 0 ? AACENC_OK : AACENC_ERR_FRAME;
}

int32_t QVR_AAC_ENC(int32_t op, void **handle, void *arg3, void *arg4)
{
    if (op != AACENC_OP_INIT && op != AACENC_OP_ENCODE && op != AACENC_OP_CLOSE) {
        return AACENC_ERR_OPERATION;
    }
    if (handle == nullptr) {
        return AACENC_ERR_NO_HANDLE;
    }
    if (op == AACENC_OP_INIT) {
        return open_encoder(handle, static_cast<AacEncInitParams *>(arg3));
    }
    if (*handle == nullptr) {
        return AACENC_ERR_NO_HANDLE;
    }
    auto *encoder = static_cast<AacEncHandle *>(*handle);
    if (op == AACENC_OP_ENCODE) {
        return encode_frame(encoder, static_cast<const AacEncAudioInfo *>(arg3),
                            static_cast<AacEncStreamInfo *>(arg4));
    }
    release_handle(encoder);
    *handle = nullptr;
    return AACENC_OK;
}

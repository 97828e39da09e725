#include "aacenc/encoder_setup.h"

#include "aacenc/band_tables.h"
#include "aacenc/fixed_point.h"
#include "aacenc/tns.h"

#include <cstring>
#include <iterator>

static constexpr int32_t kBitRateUnit = 1000;
static constexpr int32_t kLowestBitRate = 16000;
static constexpr int32_t kBitsPerSample = 6;    // bound of the bit rate, over all channels
static constexpr int32_t kFirstGlobalGain = 60; // where the first rate search starts

int32_t AACEnc_Create(AacEncHandle *handle, uint8_t *work_block)
{
    constexpr uint32_t kStates = sizeof(AacEncState) + sizeof(EncTfState);
    std::memset(work_block, 0, kStates);
    void *const tf_block = work_block + sizeof(AacEncState);
    auto *state = static_cast<AacEncState *>(static_cast<void *>(work_block));
    state->tfState = static_cast<EncTfState *>(tf_block);
    state->tfState->heapNext = work_block + kStates;
    state->tfState->heapUsed = kStates;
    handle->state = state;
    return 0;
}

void *AACEnc_malloc(size_t size_bytes, EncTfState *tf)
{
    const size_t bytes = heap_bytes(size_bytes);
    AACENC_CHECK(bytes <= kWorkBlockBytes - tf->heapUsed);
    uint8_t *memory = tf->heapNext;
    tf->heapNext += bytes;
    tf->heapUsed += static_cast<uint32_t>(bytes);
    std::memset(memory, 0, bytes);
    return memory;
}

int32_t AACENC_SetBandWidth(int32_t bit_rate_per_channel, int32_t sample_rate)
{
    size_t column = 0;
    while (column < std::size(bandwidth_bounds) &&
           bit_rate_per_channel >= bandwidth_bounds[column]) {
        column++;
    }
    for (const bandwidth_row &row : bandwidth_table) {
        if (row.sample_rate == sample_rate) {
            return row.bandwidth_hz[column];
        }
    }
    return 0;
}

// returns: position in SampleRates, -1 for any other rate
static int32_t sampling_index(int32_t sample_rate)
{
    for (size_t i = 0; i < std::size(SampleRates); i++) {
        if (SampleRates[i] == sample_rate) {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

void EncTfInit(const AacEncConfig *config, const void *ignored, EncTfState *tf)
{
    static_cast<void>(ignored);
    tf->samplingIndex = sampling_index(config->sampleRate);
    tf->sampleRate = config->sampleRate;
    tf->channels = config->channels;
    for (int32_t *&buffer : tf->channelBuffer) {
        buffer = static_cast<int32_t *>(AACEnc_malloc(kChannelBufferBytes, tf));
    }
    tf->work[0] = static_cast<int32_t *>(AACEnc_malloc(kFrameLines * sizeof(int32_t), tf));
    tf->work[1] = tf->channelBuffer[1] + kFrameLines;
    for (AacEncTns *&tns : tf->tns) {
        tns = static_cast<AacEncTns *>(AACEnc_malloc(sizeof(AacEncTns), tf));
    }
    for (AacEncCoderInfo *&coder : tf->coderInfo) {
        coder = static_cast<AacEncCoderInfo *>(AACEnc_malloc(sizeof(AacEncCoderInfo), tf));
    }
    for (AacEncChInfo *&ch_info : tf->chInfo) {
        ch_info = static_cast<AacEncChInfo *>(AACEnc_malloc(sizeof(AacEncChInfo), tf));
    }
    tf->windowShape = kSineWindow;
    tf->windowSequence[0] = kOnlyLongSequence;
    tf->windowSequence[1] = kOnlyLongSequence;
    tf->lastGain = kFirstGlobalGain;
    for (int32_t ch = 0; ch < kMaxChannels; ch++) {
        TnsInit(config->sampleRate, tf->tns[ch]);
        tf->coderInfo[ch]->tns = tf->tns[ch];
    }
}

int32_t AACEnc_Init(AacEncState *state, const AacEncConfig *config)
{
    if (config->bitRate % kBitRateUnit != 0 || config->bitRate < kLowestBitRate) {
        return kInitBadConfig;
    }
    if (config->channels < 1 || config->channels > kMaxChannels) {
        return kInitBadConfig;
    }
    if (sampling_index(config->sampleRate) < 0) {
        return kInitBadSampleRate;
    }
    state->channels = config->channels;
    state->tns = config->tns;
    state->pns = config->mpeg2Id ? 0 : config->pns; // a tool of MPEG-4
    state->outputFormat = config->outputFormat;
    state->mpeg2Id = config->mpeg2Id;

    EncTfState *tf = state->tfState;
    EncTfInit(config, nullptr, tf);
    const int32_t sample_rate = config->sampleRate;
    int32_t bit_rate = config->bitRate;
    if (bit_rate >= kBitsPerSample * sample_rate) {
        bit_rate = kBitsPerSample * sample_rate - kBitRateUnit;
    }
    const int32_t bandwidth_hz = AACENC_SetBandWidth(bit_rate / config->channels, sample_rate);
    tf->bwLines = bandwidth_hz * kFrameLines / (sample_rate / 2);
    // Bits of 1024 samples, rounded; bit_rate < 288000 keeps the product below 2^32.
    state->meanBits = static_cast<int32_t>(
        (10240U * static_cast<uint32_t>(bit_rate) / static_cast<uint32_t>(sample_rate) + 5) / 10);
    tf->bitstream = static_cast<AacEncBitstream *>(AACEnc_malloc(sizeof(AacEncBitstream), tf));
    tf->bitstream->freeBits = 8;
    state->bitsAvailable = kReservoirBits;
    return 0;
}

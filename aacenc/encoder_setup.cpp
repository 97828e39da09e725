#include "aacenc/encoder_setup.h"

#include "aacenc/band_tables.h"
#include "aacenc/bitstream.h"
#include "aacenc/fixed_point.h"
#include "aacenc/tns.h"

#include <cstring>
#include <iterator>

static constexpr int32_t kBitRateUnit = 1000;
static constexpr int32_t kLowestBitRate = 16000;
static constexpr int32_t kBitsPerSample = 6; // bound of the bit rate, over all channels

int32_t AACEnc_Create(AacEncHandle *handle, uint8_t *workBlock)
{
    constexpr uint32_t kStates = sizeof(AacEncState) + sizeof(EncTfState);
    std::memset(workBlock, 0, kStates);
    void *const tf_block = workBlock + sizeof(AacEncState);
    auto *state = static_cast<AacEncState *>(static_cast<void *>(workBlock));
    state->tfState = static_cast<EncTfState *>(tf_block);
    state->tfState->heapNext = workBlock + kStates;
    state->tfState->heapUsed = kStates;
    handle->state = state;
    return 0;
}

void *AACEnc_malloc(size_t size, EncTfState *tfState)
{
    const size_t bytes = heap_bytes(size);
    AACENC_CHECK(bytes <= kWorkBlockBytes - tfState->heapUsed);
    uint8_t *memory = tfState->heapNext;
    tfState->heapNext += bytes;
    tfState->heapUsed += static_cast<uint32_t>(bytes);
    std::memset(memory, 0, bytes);
    return memory;
}

int32_t AACENC_SetBandWidth(int32_t bitRatePerChannel, int32_t sampleRate)
{
    size_t column = 0;
    while (column < std::size(bandwidth_bounds) && bitRatePerChannel >= bandwidth_bounds[column]) {
        column++;
    }
    for (const BandwidthRow &row : bandwidth_table) {
        if (row.sample_rate == sampleRate) {
            return row.bandwidth_hz[column];
        }
    }
    return 0;
}

// returns: position in SampleRates, -1 for a rate that is not there
static int32_t sampling_index(int32_t sample_rate)
{
    for (size_t i = 0; i < std::size(SampleRates); i++) {
        if (SampleRates[i] == sample_rate) {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

void EncTfInit(const AacEncConfig *config, const void *ignored, EncTfState *tfState)
{
    static_cast<void>(ignored);
    tfState->samplingIndex = sampling_index(config->sampleRate);
    tfState->sampleRate = config->sampleRate;
    tfState->channels = config->channels;
    for (int32_t *&buffer : tfState->channelBuffer) {
        buffer = static_cast<int32_t *>(AACEnc_malloc(kChannelBufferBytes, tfState));
    }
    tfState->work[0] =
        static_cast<int32_t *>(AACEnc_malloc(kFrameLines * sizeof(int32_t), tfState));
    tfState->work[1] = tfState->channelBuffer[1] + kFrameLines;
    for (AacEncTns *&tns : tfState->tns) {
        tns = static_cast<AacEncTns *>(AACEnc_malloc(sizeof(AacEncTns), tfState));
    }
    for (AacEncCoderInfo *&coder : tfState->coderInfo) {
        coder = static_cast<AacEncCoderInfo *>(AACEnc_malloc(sizeof(AacEncCoderInfo), tfState));
    }
    for (AacEncChInfo *&ch_info : tfState->chInfo) {
        ch_info = static_cast<AacEncChInfo *>(AACEnc_malloc(sizeof(AacEncChInfo), tfState));
    }
    tfState->windowShape = kSineWindow;
    tfState->windowSequence[0] = kOnlyLongSequence;
    tfState->windowSequence[1] = kOnlyLongSequence;
    tfState->lastGain = kFirstGlobalGain;
    for (int32_t ch = 0; ch < kMaxChannels; ch++) {
        TnsInit(config->sampleRate, tfState->tns[ch]);
        tfState->coderInfo[ch]->tns = tfState->tns[ch];
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
    state->totalBits = 0;
    state->midSide = 0;
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
    *tf->bitstream = {.bytes = nullptr, .freeBits = 8, .byteIndex = 0};
    state->bitsAvailable = kReservoirBits;
    return 0;
}

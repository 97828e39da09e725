#include "aacenc/frame_driver.h"

#include "aacenc/band_tables.h"
#include "aacenc/bitstream.h"
#include "aacenc/channel_elements.h"
#include "aacenc/element_syntax.h"
#include "aacenc/filterbank.h"
#include "aacenc/rate_loop.h"
#include "aacenc/tns.h"

#include <algorithm>
#include <cstring>

static constexpr uint32_t kTnsHoldOffFrames = 3;
static constexpr int32_t kFirstFrequencyIndex = 3;   // standard's index of SampleRates[0]
static constexpr int32_t kElementHeaderBits = 3 + 4; // id_syn_ele, element_instance_tag
static constexpr int32_t kEndBits = 3;

// returns: the previous frame's samples, after the lines of a channel buffer
static int16_t *previous_frame(int32_t *channel_buffer)
{
    return reinterpret_cast<int16_t *>(channel_buffer + kFrameLines);
}

// returns: the rate's scalefactor band widths, lowest first
static const uint8_t *set_bands(EncTfState *tf)
{
    const uint8_t *bands = sr_info_aac[sr_info_index[tf->samplingIndex]];
    tf->maxSfb = bands[0];
    tf->sfbTotal = bands[0];
    tf->windowGroups = 1;
    for (AacEncCoderInfo *coder : tf->coderInfo) {
        coder->windowCount = 1;
    }
    return bands + 1;
}

static void transform_channel(const AacEncState *state, int32_t ch, const EncTfState *tf)
{
    int32_t *buffer = tf->channelBuffer[ch];
    buffer2freq(state->pcm[ch], buffer, previous_frame(buffer), tf->frameCounter);
    if (!state->pns) {
        std::fill(buffer + tf->bwLines, buffer + kFrameLines, 0);
    }
}

static void set_band_offsets(AacEncCoderInfo *coder, const uint8_t *widths, int32_t bands)
{
    coder->swbOffset[0] = 0;
    for (int32_t band = 0; band < bands; band++) {
        coder->swbOffset[band + 1] = coder->swbOffset[band] + widths[band];
    }
}

static int32_t shape_channels(const AacEncState *state, const EncTfState *tf)
{
    for (int32_t ch = 0; ch < state->channels; ch++) {
        const int32_t result = TnsEncode_fixedVer(
            tf->sfbTotal, tf->maxSfb, tf->coderInfo[ch]->swbOffset, tf->channelBuffer[ch],
            tf->tns[ch], state->tns, tf->work[0], tf->work[1]);
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

static void apply_stereo_and_noise(const AacEncState *state, const uint8_t *widths,
                                   const EncTfState *tf)
{
    if (state->pns) {
        for (int32_t ch = 0; ch < state->channels; ch++) {
            AACENC_CalcPNS(tf->channelBuffer[ch], tf->coderInfo[ch], widths, tf);
        }
    } else if (state->channels == 2 && state->midSide) {
        MSEncode(tf->channelBuffer, tf->chInfo[0], tf->chInfo[1], tf->coderInfo[0], state->channels,
                 tf);
    }
}

// returns: bits of a decoder's input buffer that are left for the channels
static int32_t channel_room(const EncTfState *tf)
{
    const AacEncChInfo *first = tf->chInfo[0];
    int32_t overhead = kElementHeaderBits + kEndBits;
    if (first->pair) {
        overhead += 1; // common_window
    }
    if (first->commonWindow) {
        overhead += write_common_window(tf->coderInfo[0], &first->ms, nullptr, 0, tf);
    }
    return kMaxChannelBits * tf->channels - overhead;
}

// returns: 0; -1 is a failure that the rate loop never reports
static int32_t code_channels(const AacEncState *state, int32_t extra_bits,
                             AacEncBitstream *bitstream, EncTfState *tf)
{
    const int32_t channels = state->channels;
    const int32_t budget = (state->meanBits - channels) / channels + extra_bits / (5 * channels);
    tf->bitsLeft = channel_room(tf);
    for (int32_t ch = 0; ch < channels; ch++) {
        if (tf_encode_spectrum_aac(&tf->channelBuffer[ch], tf->windowSequence[ch], budget,
                                   bitstream, tf->coderInfo[ch], tf->chInfo[ch], tf) == -1) {
            return -1;
        }
    }
    return 0;
}

// source: ISO/IEC 14496-3, Table 4.3, raw_data_block()
static void write_elements(AacEncBitstream *bitstream, const EncTfState *tf)
{
    for (int32_t ch = 0; ch < kMaxChannels; ch++) {
        const AacEncChInfo *info = tf->chInfo[ch];
        const auto tag = static_cast<uint32_t>(info->tag);
        if (!info->present) {
            continue;
        }
        if (!info->pair) {
            WriteSCE(tf->coderInfo[ch], tag, bitstream, 1, tf);
        } else if (info->firstOfPair) {
            WriteCPE(tf->coderInfo[ch], tf->coderInfo[info->pairedChannel], tag, info->commonWindow,
                     &info->ms, bitstream, 1, tf);
        }
    }
    BsPutBit(bitstream, ID_END, kEndBits);
    AACENC_ByteAlign(bitstream);
}

int32_t EncTfFrame(AacEncState *state, AacEncBitstream *bitstream, EncTfState *tf)
{
    if (state == nullptr || bitstream == nullptr || tf == nullptr) {
        return -1;
    }
    for (int32_t ch = 0; ch < state->channels; ch++) {
        if (state->pcm[ch] == nullptr) {
            return -1;
        }
    }

    DetermineChInfo(tf->chInfo[0], tf->chInfo[1], state->channels);
    const uint8_t *widths = set_bands(tf);
    for (int32_t ch = 0; ch < state->channels; ch++) {
        transform_channel(state, ch, tf);
    }
    for (int32_t ch = 0; ch < state->channels; ch++) {
        set_band_offsets(tf->coderInfo[ch], widths, tf->sfbTotal);
    }

    // bitsAvailable includes the frame's mean bits.
    const int32_t extra_bits =
        ((state->bitsAvailable - state->channels) & ~7) - 3 - state->meanBits;
    const int32_t shaped = shape_channels(state, tf);
    if (shaped < 0) {
        return shaped;
    }
    apply_stereo_and_noise(state, widths, tf);
    if (code_channels(state, extra_bits, bitstream, tf) < 0) {
        return -1;
    }
    write_elements(bitstream, tf);

    for (int32_t ch = 0; ch < state->channels; ch++) {
        std::memcpy(previous_frame(tf->channelBuffer[ch]), state->pcm[ch],
                    kFrameLines * sizeof(int16_t));
    }
    return 0;
}

// clang-format off

int32_t AACEnc_WriteADTSHeader(const AacEncState *state, int32_t frame_bytes, uint8_t *out_buffer)
{
    const int32_t frequency_index = state->tfState->samplingIndex + kFirstFrequencyIndex;
    uint8_t header[kAdtsHeaderBytes + 1]; // the writer clears the byte after a full one
    AacEncBitstream bs;
    bitstream_start(&bs, header);
    BsPutBit(&bs, 0xFFF, 12);                                 // syncword
    BsPutBit(&bs, static_cast<uint32_t>(state->mpeg2Id), 1);  // ID
    BsPutBit(&bs, 0, 2);                                      // layer
    BsPutBit(&bs, 1, 1);                                      // protection_absent
    BsPutBit(&bs, 1, 2);                                      // profile, Low Complexity
    BsPutBit(&bs, static_cast<uint32_t>(frequency_index), 4); // sampling_frequency_index
    BsPutBit(&bs, 0, 1);                                      // private_bit
    BsPutBit(&bs, static_cast<uint32_t>(state->channels), 3); // channel_configuration
    BsPutBit(&bs, 0, 1);                                      // original_copy
    BsPutBit(&bs, 0, 1);                                      // home
    BsPutBit(&bs, 0, 1);                                      // copyright_identification_bit
    BsPutBit(&bs, 0, 1);                                      // copyright_identification_start
    BsPutBit(&bs, static_cast<uint32_t>(frame_bytes), 13);    // aac_frame_length
    BsPutBit(&bs, 0x7FF, 11);                                 // adts_buffer_fullness
    BsPutBit(&bs, 0, 2);                                      // number_of_raw_data_blocks_in_frame
    const int32_t bits = AACENC_BsBufferNumBit(&bs);
    std::memcpy(out_buffer, header, kAdtsHeaderBytes);
    return bits;
}

// clang-format on

int32_t AACEnc_EncodeFrame(AacEncState *state, const int16_t *pcm_left, const int16_t *pcm_right,
                           uint8_t *out_buffer, int32_t *out_bytes)
{
    EncTfState *tf = state->tfState;
    if (pcm_left != nullptr) {
        state->pcm[0] = pcm_left;
    }
    if (pcm_right != nullptr) {
        state->pcm[1] = pcm_right;
    }
    state->bitsAvailable = std::min(state->bitsAvailable, kReservoirBits) + state->meanBits;

    const bool adts = state->outputFormat == AACENC_FORMAT_ADTS;
    bitstream_start(tf->bitstream, out_buffer + (adts ? kAdtsHeaderBytes : 0));
    const int32_t tns = state->tns;
    if (tf->frameCounter < kTnsHoldOffFrames) {
        state->tns = 0;
    }
    const int32_t result = EncTfFrame(state, tf->bitstream, tf);
    state->tns = tns;
    if (result < 0) {
        return result;
    }

    const int32_t bits = AACENC_BsBufferNumBit(tf->bitstream);
    state->bitsAvailable -= bits;
    state->totalBits += static_cast<uint32_t>(bits);
    tf->frameCounter++;
    int32_t bytes = (bits + 7) / 8;
    if (adts) {
        bytes += kAdtsHeaderBytes;
        AACEnc_WriteADTSHeader(state, bytes, out_buffer);
    }
    *out_bytes = bytes;
    return 0;
}

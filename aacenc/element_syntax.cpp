#include "aacenc/element_syntax.h"

#include "aacenc/bitstream.h"
#include "aacenc/huffman_tables.h"

#include <algorithm>

static constexpr int32_t kSectionEscape = 31; // sect_len_incr followed by another one
static constexpr int32_t kNoisePcmBits = 9;   // of the first noise energy
static constexpr int32_t kNoisePcmOffset = 256;
static constexpr int32_t kFillEscape = 15; // count followed by esc_count
static constexpr int32_t kMostFillBytes = kFillEscape + 255;

// Spectral bands do not use the last codeword of the codebook.
static constexpr int32_t kScalefactorLimit = kScalefactorCodes - 1;

static int32_t put(AacEncBitstream *bitstream, int32_t value, int32_t count, int32_t write)
{
    if (write) {
        BsPutBit(bitstream, static_cast<uint32_t>(value), count);
    }
    return count;
}

static int32_t put_entry(AacEncBitstream *bitstream, uint32_t entry, int32_t write)
{
    return put(bitstream, static_cast<int32_t>(entry & 0xFFFFFF), static_cast<int32_t>(entry >> 24),
               write);
}

// clang-format off

// source: ISO/IEC 14496-3, Table 4.6, long window
static int32_t write_ics_info(const AacEncCoderInfo *coder, AacEncBitstream *bs, int32_t write,
                              const EncTfState *tf)
{
    int32_t bits = 0;
    bits += put(bs, 0, 1, write);                         // ics_reserved_bit
    bits += put(bs, coder->windowSequence, 2, write);     // window_sequence
    bits += put(bs, tf->windowShape, 1, write);           // window_shape
    bits += put(bs, tf->maxSfb, 6, write);                // max_sfb
    bits += put(bs, 0, 1, write);                         // predictor_data_present
    return bits;
}

// source: ISO/IEC 14496-3, Table 4.56
static int32_t write_spectral_data(const AacEncCoderInfo *coder, AacEncBitstream *bs, int32_t write)
{
    if (write) { // hcod, sign bits, hcod_esc
        return bitstream_put_entries(bs, coder->codewords, coder->codewordCount);
    }
    int32_t bits = 0;
    for (int32_t i = 0; i < coder->codewordCount; i++) {
        bits += static_cast<int32_t>(coder->codewords[i] >> 24);
    }
    return bits;
}

int32_t write_channel_side(const AacEncCoderInfo *coder, int32_t common_window,
                           AacEncBitstream *bs, int32_t write, const EncTfState *tf)
{
    int32_t bits = 0;
    bits += put(bs, coder->globalGain, 8, write);         // global_gain
    if (!common_window) {
        bits += write_ics_info(coder, bs, write, tf);
    }
    bits += sort_book_numbers(coder, bs, write, tf);
    bits += write_scalefactor_bitstream(bs, write, coder, tf);
    bits += put(bs, 0, 1, write);                         // pulse_data_present
    bits += WriteTNSData(coder, bs, write);
    bits += put(bs, 0, 1, write);                         // gain_control_data_present
    return bits;
}

int32_t write_common_window(const AacEncCoderInfo *coder, const AacEncMsInfo *ms_info,
                            AacEncBitstream *bs, int32_t write, const EncTfState *tf)
{
    int32_t bits = 0;
    bits += write_ics_info(coder, bs, write, tf);
    bits += put(bs, ms_info->msMaskPresent, 2, write);    // ms_mask_present
    if (ms_info->msMaskPresent == 1) {
        for (int32_t group = 0; group < tf->windowGroups; group++) {
            for (int32_t sfb = 0; sfb < tf->maxSfb; sfb++) {
                bits += put(bs, ms_info->msUsed[sfb], 1, write); // ms_used
            }
        }
    }
    return bits;
}

int32_t WriteSCE(const AacEncCoderInfo *coder, uint32_t tag, AacEncBitstream *bs, int32_t write,
                 const EncTfState *tf)
{
    int32_t bits = 0;
    bits += put(bs, ID_SCE, 3, write);                    // id_syn_ele
    bits += put(bs, static_cast<int32_t>(tag), 4, write); // element_instance_tag
    bits += write_channel_side(coder, 0, bs, write, tf);
    bits += write_spectral_data(coder, bs, write);
    return bits;
}

int32_t WriteCPE(const AacEncCoderInfo *first_coder, const AacEncCoderInfo *second_coder,
                 uint32_t tag, int32_t common_window, const AacEncMsInfo *ms_info,
                 AacEncBitstream *bs, int32_t write, const EncTfState *tf)
{
    int32_t bits = 0;
    bits += put(bs, ID_CPE, 3, write);                    // id_syn_ele
    bits += put(bs, static_cast<int32_t>(tag), 4, write); // element_instance_tag
    bits += put(bs, common_window != 0 ? 1 : 0, 1, write); // common_window
    if (common_window) {
        bits += write_common_window(first_coder, ms_info, bs, write, tf);
    }
    for (const AacEncCoderInfo *coder : {first_coder, second_coder}) {
        bits += write_channel_side(coder, common_window, bs, write, tf);
        bits += write_spectral_data(coder, bs, write);
    }
    return bits;
}

int32_t sort_book_numbers(const AacEncCoderInfo *coder, AacEncBitstream *bs, int32_t write,
                          const EncTfState *tf)
{
    int32_t bits = 0;
    for (int32_t start = 0, end = 0; start < tf->maxSfb; start = end) {
        const uint8_t book = coder->codebook[start];
        for (end = start + 1; end < tf->maxSfb && coder->codebook[end] == book;) {
            end++;
        }
        bits += put(bs, book, 4, write);                  // sect_cb
        int32_t length = end - start;
        for (; length >= kSectionEscape; length -= kSectionEscape) {
            bits += put(bs, kSectionEscape, 5, write);    // sect_len_incr
        }
        bits += put(bs, length, 5, write);                // sect_len_incr
    }
    return bits;
}

// Writes a difference if it has a codeword below `limit`.
static int32_t put_difference(AacEncBitstream *bs, int32_t difference, int32_t limit, int32_t write)
{
    const int32_t index = difference + kScalefactorZero;
    return index >= 0 && index < limit ? put_entry(bs, huff12[index], write) : 0;
}

int32_t difference_bits(int32_t difference)
{
    return put_difference(nullptr, difference, kScalefactorLimit, 0);
}

int32_t write_scalefactor_bitstream(AacEncBitstream *bs, int32_t write,
                                    const AacEncCoderInfo *coder, const EncTfState *tf)
{
    int32_t last = coder->globalGain;
    int32_t last_noise = coder->globalGain;
    int32_t last_position = 0;
    bool first_noise = true;
    int32_t equal = 0; // scalefactors without a difference: a zero bit each, put together
    int32_t bits = 0;
    for (int32_t sfb = 0; sfb < tf->maxSfb; sfb++) {
        const uint8_t book = coder->codebook[sfb];
        const int32_t scalefactor = coder->scalefactor[sfb];
        const int32_t energy = coder->noiseEnergy[sfb];
        if (book == kZeroBook) {
            continue;
        }
        if (book <= kEscapeBook && scalefactor == last && equal < 32) {
            equal++;
            continue;
        }
        bits += put(bs, 0, equal, write);
        equal = 0;
        switch (book) {
        case kNoiseBook:
            if (first_noise) { // dpcm_noise_nrg
                bits += put(bs, energy - last_noise + kNoisePcmOffset, kNoisePcmBits, write);
            } else {
                bits += put_difference(bs, energy - last_noise, kScalefactorCodes, write);
            }
            first_noise = false;
            last_noise = energy;
            break;
        case kIntensityBook2: // not chosen by this encoder
        case kIntensityBook:
            bits += put_difference(bs, scalefactor - last_position, kScalefactorCodes, write);
            last_position = scalefactor;
            break;
        default:
            bits += put_difference(bs, scalefactor - last, kScalefactorLimit, write);
            last = scalefactor;
            break;
        }
    }
    return bits + put(bs, 0, equal, write);
}

int32_t WriteTNSData(const AacEncCoderInfo *coder, AacEncBitstream *bs, int32_t write)
{
    const AacEncTns *tns = coder->tns;
    int32_t bits = 0;
    bits += put(bs, tns->active, 1, write);               // tns_data_present
    if (!tns->active) {
        return bits;
    }
    bits += put(bs, tns->nFilt, 2, write);                // n_filt
    if (tns->nFilt == 0) {
        return bits;
    }
    const AacEncTnsFilter &filter = tns->filter;
    const int32_t coef_bits = tns->coefRes - filter.coefCompress;
    const int32_t coef_mask = (1 << coef_bits) - 1;
    bits += put(bs, tns->coefRes - 3, 1, write);          // coef_res
    bits += put(bs, filter.length, 6, write);             // length
    bits += put(bs, filter.order, 5, write);              // order
    if (filter.order != 0) {
        bits += put(bs, filter.direction, 1, write);      // direction
        bits += put(bs, filter.coefCompress, 1, write);   // coef_compress
        for (int32_t i = 1; i <= filter.order; i++) {
            bits += put(bs, filter.index[i] & coef_mask, coef_bits, write); // coef
        }
    }
    return bits;
}

int32_t WriteAACFillBits(AacEncBitstream *bs, int32_t bits)
{
    while (bits > 6) {
        bits -= 7;
        int32_t count = bits >> 3;
        BsPutBit(bs, ID_FIL, 3);                            // id_syn_ele
        if (count < kFillEscape) {
            BsPutBit(bs, static_cast<uint32_t>(count), 4);  // count
            for (int32_t i = 0; i < count; i++) {
                BsPutBit(bs, 0, 8);                         // extension_type FILL, fill_byte
            }
        } else {
            count = std::min(count, kMostFillBytes);
            BsPutBit(bs, uint32_t{kFillEscape}, 4);         // count
            BsPutBit(bs, static_cast<uint32_t>(count - kFillEscape), 8); // esc_count
            for (int32_t i = 0; i < count - 1; i++) {
                BsPutBit(bs, 0, 8);                         // extension_type FILL, fill_byte
            }
        }
        bits -= count * 8;
    }
    return bits;
}

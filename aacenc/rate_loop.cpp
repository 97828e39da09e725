#include "aacenc/rate_loop.h"

#include "aacenc/element_syntax.h"
#include "aacenc/encoder_setup.h"
#include "aacenc/fixed_point.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"
#include "aacenc/quantiser_vector.h"

#include <algorithm>

static constexpr int32_t kLowestStart = 40;
static constexpr int32_t kHighestGain = 200;
static constexpr int32_t kTrials = 5;
static constexpr int32_t kScalefactorOffset = 100; // gain 0 is the standard's step size of 1

// Allowance of a trial for all that it does not count, such as global_gain, ics_info and the flags.
static constexpr int32_t kSideAllowance = 102;

static constexpr int32_t kGainBits = 8;
static constexpr int32_t kIcsInfoBits = 11;
static constexpr int32_t kFlagBits = 2; // pulse_data_present, gain_control_data_present

// A channel without a coded line, with one section and TNS data.
static constexpr int32_t kEmptyChannelBits =
    kGainBits + kIcsInfoBits + (4 + 2 * 5) + kFlagBits + (1 + 2 + 1 + 11 + 2 + 12 * 4);

namespace {

// What works on the lines of a band: plain code, or vector code.
struct line_code {
    uint32_t (*largest_magnitude)(const int32_t *spectrum, int32_t count);
    void (*raise)(const int32_t *spectrum, int32_t count, int32_t *power);
    int32_t (*choose_codebook)(const band_lines &lines, int32_t count, int32_t max, uint8_t *book);
    void (*quantise)(const band_lines &lines, int32_t count, int32_t max, int32_t *quantised);
};

// The coding of one channel, from lines to codewords.
struct channel_coding {
    const int32_t *spectrum;
    int32_t *power;     // magnitudes to the power 3/4
    int32_t *quantised; // with the signs of the spectrum; only in bands with a codebook
    AacEncCoderInfo *coder;
    AacEncBitstream *bitstream;
    const EncTfState *tf;
    const line_code *code;
    int32_t tns_bits;
    int32_t fixed_bits; // all but TNS data, sections, scalefactors and spectral data
    int32_t bands;      // up to the last band that is not silent
    int32_t max_power;  // of all lines
    int32_t spectral_bits;
    int32_t section_bits;
    int32_t coded_bands;         // with spectral data
    bool has_noise;              // a band of the noise codebook
    int32_t band_max[kMaxBands]; // largest power of a band
    int32_t band_bits[kMaxBands];
    bool band_raised[kMaxBands]; // its powers are known
};

} // namespace

static constexpr line_code kPlainCode = {largest_magnitude, raise_lines, choose_codebook,
                                         quantise_lines};
static constexpr line_code kVectorCode = {largest_magnitude_vector, raise_lines_vector,
                                          choose_codebook_vector, quantise_lines_vector};

static int32_t band_width(const AacEncCoderInfo *coder, int32_t band)
{
    return coder->swbOffset[band + 1] - coder->swbOffset[band];
}

// returns: the end of the lines that are not silent, a multiple of 4
static int32_t used_lines(const int32_t *spectrum)
{
    int32_t lines = kFrameLines;
    while (lines > 0 && (spectrum[lines - 4] | spectrum[lines - 3] | spectrum[lines - 2] |
                         spectrum[lines - 1]) == 0) {
        lines -= 4;
    }
    return lines;
}

// Finds the largest power of each band.
static void find_powers(channel_coding *channel)
{
    const AacEncCoderInfo *coder = channel->coder;
    const int32_t lines = used_lines(channel->spectrum);
    while (coder->swbOffset[channel->bands] < lines) {
        channel->bands++;
    }
    for (int32_t band = 0; band < channel->bands; band++) {
        channel->band_max[band] = power_three_quarters(channel->code->largest_magnitude(
            channel->spectrum + coder->swbOffset[band], band_width(coder, band)));
        channel->max_power = std::max(channel->max_power, channel->band_max[band]);
    }
}

static int32_t starting_gain(int32_t last_gain, int32_t max_power)
{
    if (last_gain > kHighestGain) {
        return kLowestStart;
    }
    if (last_gain >= kLowestStart) {
        return last_gain;
    }
    // Sixteen gain steps divide a value by 2^3: this gain leaves the largest one about 13 bits.
    const int32_t gain = AACENC_LOG2(static_cast<uint32_t>(max_power) >> 13) / 3 * 16;
    return gain < kLowestStart || gain > kHighestGain ? kLowestStart : gain;
}

// Chooses the codebook of a band. The lines are raised when the first trial needs their powers.
// in: lines: of the channel
// in: max: largest quantised magnitude, not 0
// returns: spectral bits
static int32_t code_band(channel_coding *channel, int32_t band, band_lines *lines, int32_t max)
{
    const int32_t start = channel->coder->swbOffset[band];
    const int32_t width = band_width(channel->coder, band);
    if (max > 2 && !channel->band_raised[band]) {
        channel->code->raise(channel->spectrum + start, width, channel->power + start);
        channel->band_raised[band] = true;
    }
    lines->spectrum = channel->spectrum + start;
    lines->power = channel->power + start;
    return channel->code->choose_codebook(*lines, width, max, &channel->coder->codebook[band]);
}

// returns: the largest quantised magnitude of a band, 3 for all above 2, 0 without spectral data
static int32_t quantised_max(const channel_coding *channel, int32_t band, int32_t factor_q32)
{
    const uint8_t book = channel->coder->codebook[band];
    return book == kZeroBook || book == kNoiseBook
               ? 0
               : std::min(quantise_power(channel->band_max[band], factor_q32), 3);
}

// Quantises the bands that have spectral data, neighbours of the same kind together.
static void quantise_bands(const channel_coding *channel, int32_t gain)
{
    const int32_t *offsets = channel->coder->swbOffset;
    const gain_step step = step_of_gain(gain);
    for (int32_t band = 0, end = 0; band < channel->bands; band = end) {
        const int32_t start = offsets[band];
        const int32_t max = quantised_max(channel, band, step.factor_q32);
        for (end = band + 1;
             end < channel->bands && quantised_max(channel, end, step.factor_q32) == max;) {
            end++;
        }
        if (max != 0) {
            channel->code->quantise({channel->spectrum + start, channel->power + start, step},
                                    offsets[end] - start, max, channel->quantised + start);
        }
    }
}

static void count_sections(channel_coding *channel)
{
    channel->section_bits = sort_book_numbers(channel->coder, channel->bitstream, 0, channel->tf);
}

// Chooses the codebook of each band and counts. Stops once the spectral bits exceed
// `most_bits`: what is not counted yet only adds to them, so the channel exceeds it too.
// returns: whether it has come to the end; if not, only that is known of the gain
static bool choose_codebooks(channel_coding *channel, int32_t gain, int32_t most_bits)
{
    AacEncCoderInfo *coder = channel->coder;
    band_lines lines = {nullptr, nullptr, step_of_gain(gain)};
    int32_t bits = 0;
    channel->coded_bands = 0;
    channel->has_noise = false;
    for (int32_t band = 0; band < channel->bands && bits <= most_bits; band++) {
        const int32_t max = quantise_power(channel->band_max[band], lines.step.factor_q32);
        int32_t band_bits = 0;
        if (max == 0) {
            coder->codebook[band] = kZeroBook;
        } else if (coder->noiseFlag[band]) {
            coder->codebook[band] = kNoiseBook;
            channel->has_noise = true;
        } else {
            band_bits = code_band(channel, band, &lines, max);
            channel->coded_bands++;
        }
        channel->band_bits[band] = band_bits;
        bits += band_bits;
    }
    channel->spectral_bits = bits;
    if (bits > most_bits) {
        return false;
    }
    count_sections(channel);
    return true;
}

// returns: the bits of all scalefactors, which are equal
static int32_t scalefactor_bits(const channel_coding *channel)
{
    const AacEncCoderInfo *coder = channel->coder;
    if (channel->has_noise || channel->coded_bands == 0) {
        return write_scalefactor_bitstream(channel->bitstream, 0, coder, channel->tf);
    }
    return difference_bits(coder->scalefactor[0] - coder->globalGain) +
           (channel->coded_bands - 1) * difference_bits(0);
}

// returns: the channel's bits with a gain, as the search counts them; more than `most_bits` when it
// stopped because of them
static int32_t try_gain(channel_coding *channel, int32_t gain, int32_t most_bits)
{
    if (!choose_codebooks(channel, gain, most_bits)) {
        return INT32_MAX;
    }
    channel->coder->globalGain = gain; // a rough count: all scalefactors are still 0
    return channel->section_bits + channel->spectral_bits + channel->tns_bits + kSideAllowance +
           scalefactor_bits(channel);
}

// Searches for a gain that takes more than three quarters of the budget, but not more than all of
// it. Leaves the codebooks of the returned gain in the channel, also when no trial met the budget.
static int32_t search_gain(channel_coding *channel, int32_t bit_budget)
{
    const int32_t budget_quarter = bit_budget >> 2;
    int32_t gain = starting_gain(channel->tf->lastGain, channel->max_power);
    int32_t step = 8;
    int32_t gains[kTrials];
    int32_t results_bits[kTrials];
    for (int32_t trial = 0;; trial++) {
        int32_t next = gain + step;
        // Its codebooks may be needed.
        const bool last = trial == kTrials - 1 || next > kHighestGain;
        const auto earlier = std::find(gains, gains + trial, gain) - gains;
        const int32_t total_bits = !last && earlier < trial
                                       ? results_bits[earlier]
                                       : try_gain(channel, gain, last ? INT32_MAX : bit_budget);
        if (total_bits <= bit_budget) {
            if (bit_budget - total_bits < budget_quarter) {
                return gain;
            }
            step = step >> 1 != 0 ? step >> 1 : 2;
            next = gain - step;
        }
        if (next > kHighestGain || trial == kTrials - 1) {
            return gain;
        }
        gains[trial] = gain;
        results_bits[trial] = total_bits;
        gain = next;
    }
}

// Limits the differences between the noise energies of a gain's noise bands to those of the
// scalefactor codebook.
static void bound_noise_steps(channel_coding *channel, int32_t gain)
{
    AacEncCoderInfo *coder = channel->coder;
    const int32_t factor_q32 = step_of_gain(gain).factor_q32;
    bool first = true;
    int32_t last = 0;
    for (int32_t band = 0; band < channel->bands; band++) {
        if (!coder->noiseFlag[band] || quantise_power(channel->band_max[band], factor_q32) == 0) {
            continue;
        }
        int32_t &energy = coder->noiseEnergy[band];
        if (!first) {
            energy = std::clamp(energy, last - kScalefactorZero, last + kScalefactorZero);
        }
        first = false;
        last = energy;
    }
}

// Sets the scalefactors. The quantiser's factor is constant from kMaxFactorGain on, and so is the
// scalefactor.
static void set_scalefactors(channel_coding *channel, int32_t gain)
{
    AacEncCoderInfo *coder = channel->coder;
    const int32_t scalefactor = std::min(gain, kMaxFactorGain) + kScalefactorOffset;
    std::fill_n(coder->scalefactor, channel->tf->sfbTotal, scalefactor);
    coder->globalGain = scalefactor;
}

static int32_t channel_bits(const channel_coding *channel)
{
    return channel->fixed_bits + channel->tns_bits + channel->section_bits +
           scalefactor_bits(channel) + channel->spectral_bits;
}

static bool codewords_fit(const channel_coding *channel, int32_t gain)
{
    const AacEncCoderInfo *coder = channel->coder;
    const int32_t bands = channel->tf->sfbTotal;
    const int32_t lines = coder->swbOffset[channel->bands];
    // Of two lines: a codeword and two signs, and two escapes in the escape codebook.
    int32_t most_entries = bands + lines / 2 * 3;
    if (most_entries + lines <= kMaxCodewords) {
        return true;
    }
    for (int32_t band = 0; band < channel->bands; band++) {
        most_entries += coder->codebook[band] == kEscapeBook ? band_width(coder, band) : 0;
    }
    if (most_entries <= kMaxCodewords) {
        return true;
    }
    quantise_bands(channel, gain);
    int32_t entries = bands - channel->bands;
    for (int32_t band = 0; band < channel->bands; band++) {
        entries +=
            count_codewords(coder->codebook[band], channel->quantised + coder->swbOffset[band],
                            band_width(coder, band));
    }
    return entries <= kMaxCodewords;
}

static bool fits(const channel_coding *channel, int32_t gain, int32_t limit_bits)
{
    return channel_bits(channel) <= limit_bits && codewords_fit(channel, gain);
}

static bool drop_top_band(channel_coding *channel)
{
    for (int32_t band = channel->bands - 1; band >= 0; band--) {
        uint8_t &book = channel->coder->codebook[band];
        if (book != kZeroBook) {
            channel->coded_bands -= book != kNoiseBook ? 1 : 0;
            book = kZeroBook;
            channel->spectral_bits -= channel->band_bits[band];
            channel->band_bits[band] = 0;
            count_sections(channel);
            return true;
        }
    }
    return false;
}

// Enforces the limits that the search ignores: the largest magnitude, `limit_bits` and the size of
// the codeword list. Raises the gain up to kMaxFactorGain, then drops the top bands.
// out: bits: of the channel
// returns: the gain
static int32_t keep_in_syntax(channel_coding *channel, int32_t gain, int32_t limit_bits,
                              int32_t *bits)
{
    const int32_t searched_gain = gain;
    while (quantise_power(channel->max_power, step_of_gain(gain).factor_q32) > kMaxQuantised) {
        gain++;
    }
    bool counted = gain == searched_gain;
    for (;; gain++) {
        const bool last = gain >= kMaxFactorGain; // its codebooks are needed
        counted = counted || choose_codebooks(channel, gain, last ? INT32_MAX : limit_bits);
        bound_noise_steps(channel, gain);
        set_scalefactors(channel, gain);
        if (last || (counted && fits(channel, gain, limit_bits))) {
            break;
        }
        counted = false;
    }
    while (!fits(channel, gain, limit_bits) && drop_top_band(channel)) {
    }
    *bits = channel_bits(channel);
    return gain;
}

// Packing also writes to the entry after the last one.
static_assert(heap_bytes(kChannelBufferBytes) > kMaxCodewords * sizeof(uint32_t));

static void pack_channel(channel_coding *channel, uint32_t *list)
{
    AacEncCoderInfo *coder = channel->coder;
    uint32_t *end = list;
    for (int32_t band = 0; band < channel->tf->sfbTotal; band++) {
        if (coder->codebook[band] == kZeroBook) {
            *end++ = 0;
            continue;
        }
        end = pack_codewords(coder->codebook[band], channel->quantised + coder->swbOffset[band],
                             band_width(coder, band), end);
    }
    coder->codewords = list;
    coder->codewordCount = static_cast<int32_t>(end - list);
    AACENC_CHECK(coder->codewordCount <= kMaxCodewords);
}

// A checked build runs the plain code, which checks its ranges.
static bool takes_vectors()
{
#ifdef TDMBREC_CHECKED
    return false;
#else
    return vector_quantiser_available();
#endif
}

int32_t tf_encode_spectrum_aac(int32_t *const *spectrum, uint8_t window_sequence,
                               int32_t bit_budget, AacEncBitstream *bitstream,
                               AacEncCoderInfo *coder, const AacEncChInfo *ch_info, EncTfState *tf)
{
    // The list overwrites the spectrum and, in the second channel's buffer, the powers. The
    // quantised lines must therefore be in the other work array.
    channel_coding channel = {
        .spectrum = *spectrum,
        .power = tf->work[1],
        .quantised = tf->work[0],
        .coder = coder,
        .bitstream = bitstream,
        .tf = tf,
        .code = takes_vectors() ? &kVectorCode : &kPlainCode,
        .tns_bits = WriteTNSData(coder, bitstream, 0),
        .fixed_bits = kGainBits + (ch_info->commonWindow != 0 ? 0 : kIcsInfoBits) + kFlagBits,
    };
    coder->windowSequence = window_sequence;
    std::fill_n(coder->scalefactor, tf->sfbTotal, 0);
    std::fill_n(coder->codebook, tf->sfbTotal, kZeroBook);
    find_powers(&channel);

    const int32_t searched_gain = search_gain(&channel, bit_budget);
    const bool another_follows = ch_info->pair != 0 && ch_info->firstOfPair != 0;
    const int32_t limit_bits = tf->bitsLeft - (another_follows ? kEmptyChannelBits : 0);
    int32_t bits = 0;
    tf->lastGain = keep_in_syntax(&channel, searched_gain, limit_bits, &bits);
    tf->bitsLeft -= bits;
    AACENC_CHECK(bits == write_channel_side(coder, ch_info->commonWindow, bitstream, 0, tf) +
                             channel.spectral_bits);
    quantise_bands(&channel, tf->lastGain);
    pack_channel(&channel, reinterpret_cast<uint32_t *>(*spectrum));
    return 0;
}

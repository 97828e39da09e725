#include "aacenc/rate_loop.h"

#include "aacenc/element_syntax.h"
#include "aacenc/encoder_setup.h"
#include "aacenc/fixed_point.h"
#include "aacenc/huffman_tables.h"
#include "aacenc/noiseless_coding.h"
#include "aacenc/quantiser.h"

#include <algorithm>

static constexpr int32_t kLowestStart = 40;
static constexpr int32_t kHighestGain = 200;
static constexpr int32_t kTrials = 5;
static constexpr int32_t kScalefactorOffset = 100; // gain 0 is the standard's step size of 1
static constexpr int32_t kMostPairEntries = 5;     // a codeword, two signs, two escapes

// Allowance of a trial for all that it does not count, such as global_gain, ics_info and the flags.
static constexpr int32_t kSideAllowance = 102;

// A channel without a coded line: global_gain, ics_info, one section, the three flags, TNS data.
static constexpr int32_t kEmptyChannelBits = 8 + 11 + (4 + 2 * 5) + 3 + (2 + 1 + 11 + 2 + 12 * 4);

namespace {

// The coding of one channel, from lines to codewords.
struct channel_coding {
    const int32_t *spectrum;
    int32_t *power;     // magnitudes to the power 3/4
    int32_t *quantised; // with the signs of the spectrum; only in bands with a codebook
    AacEncCoderInfo *coder;
    AacEncBitstream *bitstream;
    const EncTfState *tf;
    int32_t common_window;
    int32_t bands;     // up to the last band that is not silent
    int32_t max_power; // of all lines
    int32_t side_bits;
    int32_t band_max[kMaxBands]; // largest power of a band
    int32_t band_bits[kMaxBands];
    bool band_raised[kMaxBands]; // its powers are known
};

} // namespace

static int32_t band_width(const AacEncCoderInfo *coder, int32_t band)
{
    return coder->swbOffset[band + 1] - coder->swbOffset[band];
}

static bool band_silent(const channel_coding *channel, int32_t band)
{
    uint32_t bits = 0;
    for (int32_t k = channel->coder->swbOffset[band]; k < channel->coder->swbOffset[band + 1];
         k++) {
        bits |= static_cast<uint32_t>(channel->spectrum[k]);
    }
    return bits == 0;
}

// Finds the largest power of each band.
static void find_powers(channel_coding *channel)
{
    const AacEncCoderInfo *coder = channel->coder;
    channel->bands = channel->tf->sfbTotal;
    while (channel->bands > 0 && band_silent(channel, channel->bands - 1)) {
        channel->bands--;
    }
    for (int32_t band = 0; band < channel->bands; band++) {
        channel->band_max[band] = power_three_quarters(
            largest_magnitude(channel->spectrum + coder->swbOffset[band], band_width(coder, band)));
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

// Quantises a band. Its lines are raised when the first trial needs them; many bands are never
// needed, because even their largest line becomes zero.
static void quantise_band(channel_coding *channel, int32_t band, int32_t factor_q32)
{
    const int32_t start = channel->coder->swbOffset[band];
    const int32_t width = band_width(channel->coder, band);
    if (!channel->band_raised[band]) {
        raise_lines(channel->spectrum + start, width, channel->power + start);
        channel->band_raised[band] = true;
    }
    quantise_lines(channel->spectrum + start, channel->power + start, factor_q32, width,
                   channel->quantised + start);
}

// Quantises each band, chooses its codebook and counts its spectral bits.
static void choose_codebooks(channel_coding *channel, int32_t gain)
{
    AacEncCoderInfo *coder = channel->coder;
    const int32_t factor_q32 = quantiser_factor(gain);
    for (int32_t band = 0; band < channel->bands; band++) {
        const int32_t max = quantise_power(channel->band_max[band], factor_q32);
        book_choice choice = {kZeroBook, 0};
        if (max != 0 && coder->noiseFlag[band]) {
            choice.book = kNoiseBook;
        } else if (max != 0) {
            quantise_band(channel, band, factor_q32);
            choice = choose_codebook(channel->quantised + coder->swbOffset[band],
                                     band_width(coder, band), max);
        }
        coder->codebook[band] = choice.book;
        channel->band_bits[band] = choice.bits;
    }
}

static int32_t spectral_bits(const channel_coding *channel)
{
    int32_t bits = 0;
    for (int32_t band = 0; band < channel->bands; band++) {
        bits += channel->band_bits[band];
    }
    return bits;
}

// returns: the channel's bits with a gain, as the search counts them
static int32_t try_gain(channel_coding *channel, int32_t gain)
{
    AacEncCoderInfo *coder = channel->coder;
    choose_codebooks(channel, gain);
    coder->globalGain = gain; // a rough count: all scalefactors are still 0
    return sort_book_numbers(coder, channel->bitstream, 0, channel->tf) + spectral_bits(channel) +
           channel->side_bits +
           write_scalefactor_bitstream(channel->bitstream, 0, coder, channel->tf);
}

// Searches for a gain that takes more than three quarters of the budget, but not more than all of
// it. Leaves the codebooks of the returned gain in the channel, also when no trial met the budget.
static int32_t search_gain(channel_coding *channel, int32_t bit_budget)
{
    const int32_t budget_quarter = bit_budget >> 2;
    int32_t gain = starting_gain(channel->tf->lastGain, channel->max_power);
    int32_t step = 8;
    for (int32_t trial = 1;; trial++) {
        const int32_t total_bits = try_gain(channel, gain);
        int32_t next = gain + step;
        if (total_bits <= bit_budget) {
            if (bit_budget - total_bits < budget_quarter) {
                return gain;
            }
            step = step >> 1 != 0 ? step >> 1 : 2;
            next = gain - step;
        }
        if (next > kHighestGain || trial == kTrials) {
            return gain;
        }
        gain = next;
    }
}

// Limits the differences between noise energies to those of the scalefactor codebook.
static void bound_noise_steps(AacEncCoderInfo *coder, int32_t bands)
{
    bool first = true;
    int32_t last = 0;
    for (int32_t band = 0; band < bands; band++) {
        if (coder->codebook[band] != kNoiseBook) {
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

// Sets the scalefactors. The quantiser's factor is constant from
// kMaxFactorGain on, and so is the scalefactor.
static void settle_gain(channel_coding *channel, int32_t gain)
{
    AacEncCoderInfo *coder = channel->coder;
    const int32_t scalefactor = std::min(gain, kMaxFactorGain) + kScalefactorOffset;
    std::fill_n(coder->scalefactor, channel->tf->sfbTotal, scalefactor);
    coder->globalGain = scalefactor;
    bound_noise_steps(coder, channel->bands);
}

static int32_t channel_bits(const channel_coding *channel)
{
    return write_channel_side(channel->coder, channel->common_window, channel->bitstream, 0,
                              channel->tf) +
           spectral_bits(channel);
}

static bool codewords_fit(const channel_coding *channel)
{
    const AacEncCoderInfo *coder = channel->coder;
    const int32_t bands = channel->tf->sfbTotal;
    if (coder->swbOffset[channel->bands] * kMostPairEntries / 2 + bands <= kMaxCodewords) {
        return true;
    }
    int32_t entries = bands - channel->bands;
    for (int32_t band = 0; band < channel->bands; band++) {
        entries +=
            count_codewords(coder->codebook[band], channel->quantised + coder->swbOffset[band],
                            band_width(coder, band));
    }
    return entries <= kMaxCodewords;
}

static bool drop_top_band(channel_coding *channel)
{
    for (int32_t band = channel->bands - 1; band >= 0; band--) {
        if (channel->coder->codebook[band] != kZeroBook) {
            channel->coder->codebook[band] = kZeroBook;
            channel->band_bits[band] = 0;
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
    while (quantise_power(channel->max_power, quantiser_factor(gain)) > kMaxQuantised) {
        gain++;
    }
    if (gain != searched_gain) {
        choose_codebooks(channel, gain);
    }
    settle_gain(channel, gain);
    for (*bits = channel_bits(channel); *bits > limit_bits || !codewords_fit(channel);
         *bits = channel_bits(channel)) {
        if (gain < kMaxFactorGain) {
            gain++;
            choose_codebooks(channel, gain);
            settle_gain(channel, gain);
        } else if (!drop_top_band(channel)) {
            break;
        }
    }
    return gain;
}

// Packing also writes to the entry after the last one.
static_assert(heap_bytes(kChannelBufferBytes) > kMaxCodewords * sizeof(uint32_t));

static void pack_channel(channel_coding *channel, uint32_t *list)
{
    AacEncCoderInfo *coder = channel->coder;
    uint32_t *end = list;
    for (int32_t band = 0; band < channel->tf->sfbTotal; band++) {
        end = pack_codewords(coder->codebook[band], channel->quantised + coder->swbOffset[band],
                             band_width(coder, band), end);
    }
    coder->codewords = list;
    coder->codewordCount = static_cast<int32_t>(end - list);
    AACENC_CHECK(coder->codewordCount <= kMaxCodewords);
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
        .common_window = ch_info->commonWindow,
    };
    coder->windowSequence = window_sequence;
    channel.side_bits = WriteTNSData(coder, bitstream, 0) + kSideAllowance;
    std::fill_n(coder->scalefactor, tf->sfbTotal, 0);
    std::fill_n(coder->codebook, tf->sfbTotal, kZeroBook);
    find_powers(&channel);

    const int32_t searched_gain = search_gain(&channel, bit_budget);
    const bool another_follows = ch_info->pair != 0 && ch_info->firstOfPair != 0;
    const int32_t limit_bits = tf->bitsLeft - (another_follows ? kEmptyChannelBits : 0);
    int32_t bits = 0;
    tf->lastGain = keep_in_syntax(&channel, searched_gain, limit_bits, &bits);
    tf->bitsLeft -= bits;
    pack_channel(&channel, reinterpret_cast<uint32_t *>(*spectrum));
    return 0;
}

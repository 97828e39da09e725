#include "recovery/aac_frame.h"

#include "aacenc/band_tables.h"
#include "aacenc/huffman_tables.h"
#include "recovery/aac_codewords.h"

#include <algorithm>
#include <bit>
#include <cstddef>

static constexpr uint32_t kReservedBook = 12;
static constexpr int32_t kNoiseOffset = 256; // of the first noise energy
static constexpr int32_t kSectionEscape = 31;
static constexpr int32_t kMostChannelBits = 6144;
static constexpr uint32_t kMostTnsOrder = 12;
static constexpr uint32_t kLeastEscapeBits = 4; // after a prefix of no ones
static constexpr uint32_t kMostEscapeOnes = 8;  // of the prefix of 8191

namespace {

// Bits after the last byte read as zeros; whoever reads a frame compares the position with the end.
struct bit_reader {
    const uint8_t *bytes;
    int32_t count;
    int32_t position; // in bits
    const char *fault;
    bool is_cut;
};

struct channel_state {
    int32_t global_gain;
    uint8_t codebook[kAacMostBands];
};

// What all parts of a frame need.
struct frame_reader {
    bit_reader in;
    const aac_codeword_tables *codewords;
    const uint8_t *widths; // of the bands
    int32_t bands;
    aac_frame_values *values; // or null
};

} // namespace

static void fail(bit_reader *in, const char *fault)
{
    if (in->fault == nullptr) {
        in->is_cut = in->position > 8 * in->count;
        in->fault = in->is_cut ? "end of the data" : fault;
    }
}

// Written so that compilers make it one load.
static inline uint64_t read_be64(const uint8_t *bytes)
{
    return uint64_t{bytes[0]} << 56 | uint64_t{bytes[1]} << 48 | uint64_t{bytes[2]} << 40 |
           uint64_t{bytes[3]} << 32 | uint64_t{bytes[4]} << 24 | uint64_t{bytes[5]} << 16 |
           uint64_t{bytes[6]} << 8 | uint64_t{bytes[7]};
}

// Bits of which some may be after the end of the data.
static uint64_t peek_last(const uint8_t *bytes, int32_t count, int32_t first)
{
    uint8_t last[8] = {};
    for (int32_t i = 0; first + i < count; i++) {
        last[i] = bytes[first + i];
    }
    return read_be64(last);
}

static inline uint64_t peek_at(const uint8_t *bytes, int32_t count, int32_t position)
{
    const int32_t first = position >> 3; // cheaper than a division of a signed number
    const uint64_t bits =
        first + 8 <= count ? read_be64(bytes + first) : peek_last(bytes, count, first);
    return bits << (position & 7);
}

// returns: at least the next 57 bits, the first one highest
static inline uint64_t peek(const bit_reader *in)
{
    return peek_at(in->bytes, in->count, in->position);
}

static uint32_t get(bit_reader *in, int32_t count)
{
    const uint32_t value = static_cast<uint32_t>(peek(in) >> (64 - count));
    in->position += count;
    return value;
}

static void expect(bit_reader *in, int32_t count, uint32_t value, const char *fault)
{
    if (get(in, count) != value) {
        fail(in, fault);
    }
}

static void read_section_data(frame_reader *frame, channel_state *channel)
{
    bit_reader *const in = &frame->in;
    uint32_t last_book = UINT32_MAX;
    for (int32_t band = 0; band < frame->bands && in->fault == nullptr;) {
        const uint32_t book = get(in, 4); // sect_cb
        if (book == kReservedBook || book > kNoiseBook) {
            fail(in, "reserved or intensity codebook");
        }
        if (book == last_book) {
            fail(in, "section that continues the previous one");
        }
        last_book = book;
        int32_t length = 0;
        int32_t increment = kSectionEscape;
        while (increment == kSectionEscape && length <= frame->bands) {
            increment = static_cast<int32_t>(get(in, 5)); // sect_len_incr
            length += increment;
        }
        if (length == 0 || length > frame->bands - band) {
            fail(in, "section of no band or of too many");
            return;
        }
        std::fill_n(channel->codebook + band, length, static_cast<uint8_t>(book));
        band += length;
    }
}

static int32_t get_difference(bit_reader *in, const aac_codeword_tables *codewords)
{
    const aac_codeword *const word = find_aac_codeword(codewords, kAacScalefactorBook, peek(in));
    in->position += static_cast<int32_t>(word->bits);
    return static_cast<int32_t>(word->index) - kScalefactorZero;
}

static void read_scalefactors(frame_reader *frame, const channel_state *channel,
                              int16_t *scalefactors)
{
    bit_reader in = frame->in; // in registers
    int32_t last = channel->global_gain;
    int32_t noise = channel->global_gain - kNoiseOffset;
    bool is_first_noise = true;
    for (int32_t band = 0; band < frame->bands; band++) {
        const uint8_t book = channel->codebook[band];
        if (book == kNoiseBook) {
            noise += is_first_noise ? static_cast<int32_t>(get(&in, 9))
                                    : get_difference(&in, frame->codewords);
            is_first_noise = false;
        } else if (book != kZeroBook) {
            last += get_difference(&in, frame->codewords);
            if (last < 0 || last > UINT8_MAX) {
                fail(&in, "scalefactor out of range");
            }
        }
        if (scalefactors != nullptr) {
            const int32_t value = book == kNoiseBook ? noise : book != kZeroBook ? last : 0;
            scalefactors[band] = static_cast<int16_t>(value);
        }
    }
    frame->in = in;
}

static void read_tns_data(bit_reader *in)
{
    expect(in, 2, 1, "n_filt other than 1");
    expect(in, 1, 1, "coef_res other than 1");
    (void)get(in, 6); // length
    const uint32_t order = get(in, 5);
    if (order > kMostTnsOrder) {
        fail(in, "TNS order above the profile's");
        return;
    }
    if (order != 0) {
        expect(in, 2, 0, "direction or coef_compress");
    }
    for (uint32_t i = 0; i < order; i++) {
        if (get(in, 4) == 8) {
            fail(in, "TNS coefficient of -8");
        }
    }
}

static int32_t get_escape(bit_reader *in)
{
    const uint32_t ones = static_cast<uint32_t>(std::countl_one(peek(in)));
    if (ones > kMostEscapeOnes) {
        in->position += static_cast<int32_t>(kMostEscapeOnes) + 1;
        fail(in, "escape above 8191");
        return 0;
    }
    in->position += static_cast<int32_t>(ones) + 1;
    const uint32_t length = ones + kLeastEscapeBits;
    return (1 << length) + static_cast<int32_t>(get(in, static_cast<int32_t>(length)));
}

// Reads signs and escapes after a codeword and stores its values.
static void read_values(bit_reader *in, uint32_t book, const aac_codeword *word, int16_t *out)
{
    int32_t values[4];
    bool is_negative[4] = {};
    const int32_t count = get_aac_values(book, word->index, values);
    for (int32_t i = 0; i < count && !is_signed_aac_book(book); i++) {
        is_negative[i] = values[i] != 0 && get(in, 1) == 1;
    }
    for (int32_t i = 0; i < count; i++) {
        const bool is_escape = (word->escapes >> i & 1) != 0;
        const int32_t magnitude = is_escape ? get_escape(in) : values[i];
        out[i] = static_cast<int16_t>(is_negative[i] ? -magnitude : magnitude);
    }
}

static void skip_escapes(bit_reader *in, uint32_t escapes)
{
    for (; escapes != 0; escapes &= escapes - 1) {
        (void)get_escape(in);
    }
}

// Passes over the codewords of a band, with their signs and escapes. Most bits are read here: they
// are looked at in a register, which is filled for two codewords.
// returns: the largest magnitude, at most kAacEscapeMark
static uint32_t skip_band(frame_reader *frame, uint32_t book, int32_t width)
{
    const aac_codeword_tables *const codewords = frame->codewords;
    const uint8_t *const bytes = frame->in.bytes;
    const int32_t count = frame->in.count;
    int32_t position = frame->in.position;
    const int32_t words = book <= 4 ? width / 4 : width / 2;
    uint64_t bits = 0;
    uint32_t largest = 0;
    for (int32_t k = 0; k < words; k++) {
        bits = k % 2 == 0 ? peek_at(bytes, count, position) : bits;
        const aac_codeword *const word = find_aac_codeword(codewords, book, bits);
        bits <<= word->bits;
        position += static_cast<int32_t>(word->bits);
        largest = std::max<uint32_t>(largest, word->largest);
        if (word->escapes != 0) {
            frame->in.position = position;
            skip_escapes(&frame->in, word->escapes);
            position = frame->in.position;
            bits = peek_at(bytes, count, position);
        }
    }
    frame->in.position = position;
    return largest;
}

// Reads the values of a band.
// returns: as skip_band
static uint32_t read_band(frame_reader *frame, uint32_t book, int32_t width, int16_t *quantised)
{
    bit_reader *const in = &frame->in;
    const int32_t group = book <= 4 ? 4 : 2;
    uint32_t largest = 0;
    for (int32_t k = 0; k < width; k += group) {
        const aac_codeword *const word = find_aac_codeword(frame->codewords, book, peek(in));
        in->position += static_cast<int32_t>(word->bits - word->signs);
        read_values(in, book, word, quantised + k);
        largest = std::max<uint32_t>(largest, word->largest);
    }
    return largest;
}

static void read_spectral_data(frame_reader *frame, const channel_state *channel,
                               int16_t *quantised)
{
    // Largest magnitude of the codebooks below 2 * i + 1.
    static constexpr uint32_t kLargest[6] = {0, 1, 2, 4, 7, 12};
    int32_t line = 0;
    for (int32_t band = 0; band < frame->bands && frame->in.fault == nullptr; band++) {
        const uint8_t book = channel->codebook[band];
        if (book != kZeroBook && book != kNoiseBook) {
            const int32_t width = frame->widths[band];
            const uint32_t largest = quantised != nullptr
                                         ? read_band(frame, book, width, quantised + line)
                                         : skip_band(frame, book, width);
            if (largest <= kLargest[(book - 1) / 2]) {
                fail(&frame->in, "codebook for larger values");
            }
        }
        line += frame->widths[band];
    }
}

static void read_ics_info(frame_reader *frame)
{
    expect(&frame->in, 4, 0, "ics_reserved_bit, window_sequence or window_shape");
    expect(&frame->in, 6, static_cast<uint32_t>(frame->bands), "max_sfb below all bands");
    expect(&frame->in, 1, 0, "predictor_data_present");
}

static void read_channel_stream(frame_reader *frame, bool has_common_window,
                                aac_channel_values *values)
{
    bit_reader *const in = &frame->in;
    channel_state channel;
    channel.global_gain = static_cast<int32_t>(get(in, 8));
    if (!has_common_window) {
        read_ics_info(frame);
    }
    read_section_data(frame, &channel);
    if (in->fault != nullptr) {
        return;
    }
    read_scalefactors(frame, &channel, values != nullptr ? values->scalefactor : nullptr);
    expect(in, 1, 0, "pulse_data_present");
    const bool has_tns = get(in, 1) == 1;
    if (has_tns) {
        read_tns_data(in);
    }
    expect(in, 1, 0, "gain_control_data_present");
    if (values != nullptr) {
        values->global_gain = channel.global_gain;
        values->has_tns = has_tns;
        std::copy_n(channel.codebook, frame->bands, values->codebook);
    }
    read_spectral_data(frame, &channel, values != nullptr ? values->quantised : nullptr);
}

// Reads ics_info() and the mid/side mask of a channel pair with a common window.
static void read_common_window(frame_reader *frame)
{
    read_ics_info(frame);
    expect(&frame->in, 2, 1, "ms_mask_present other than 1");
    for (int32_t band = 0; band < frame->bands; band++) {
        expect(&frame->in, 1, 1, "band without mid/side");
    }
}

// returns: the number of channels
static int32_t read_elements(frame_reader *frame)
{
    bit_reader *const in = &frame->in;
    const uint32_t id = get(in, 3); // id_syn_ele
    if (id > 1) {
        fail(in, "neither a single channel nor a channel pair element");
    }
    expect(in, 4, 0, "element_instance_tag other than 0");
    const int32_t channels = id == 0 ? 1 : 2;
    const bool has_common_window = channels == 2 && in->fault == nullptr && get(in, 1) == 1;
    if (has_common_window) {
        read_common_window(frame);
    }
    for (int32_t ch = 0; ch < channels && in->fault == nullptr; ch++) {
        read_channel_stream(frame, has_common_window,
                            frame->values != nullptr ? &frame->values->channel[ch] : nullptr);
    }
    if (in->fault == nullptr) {
        expect(in, 3, 7, "element in place of END");
    }
    if (frame->values != nullptr) {
        frame->values->channels = channels;
        frame->values->has_mid_side = has_common_window;
    }
    return channels;
}

int32_t announced_aac_bands(const uint8_t *bytes, int32_t count)
{
    const uint64_t bits = peek_at(bytes, count, 0);
    const uint64_t id = bits >> 61; // id_syn_ele
    const bool has_common_window = id == 1 && (bits >> 56 & 1) != 0;
    const int32_t ics_info = has_common_window ? 8 : id == 1 ? 16 : 15;
    const uint64_t head = bits << ics_info >> 53; // as read_ics_info reads it
    const bool is_head = id <= 1 && (bits >> 57 & 0xF) == 0 && head >> 7 == 0 && (head & 1) == 0;
    return is_head ? static_cast<int32_t>(head >> 1 & 0x3F) : 0;
}

static const uint8_t *row_of(int32_t sampling_index)
{
    return sr_info_aac[sr_info_index[sampling_index - kAacFirstSamplingIndex]];
}

int32_t aac_bands_of(int32_t sampling_index)
{
    return row_of(sampling_index)[0];
}

aac_frame read_aac_frame(const uint8_t *bytes, int32_t count, int32_t sampling_index,
                         aac_frame_values *values)
{
    const uint8_t *const row = row_of(sampling_index);
    frame_reader frame = {.in = {.bytes = bytes, .count = std::min(count, kAacMostFrameBytes + 1)},
                          .codewords = get_aac_codewords(),
                          .widths = row + 1,
                          .bands = row[0],
                          .values = values};
    if (values != nullptr) {
        *values = {.bands = row[0]};
    }
    bit_reader *const in = &frame.in;
    aac_frame result = {};
    result.channels = read_elements(&frame);
    result.bits = in->position;
    if (in->position % 8 != 0) {
        expect(in, 8 - in->position % 8, 0, "alignment bits other than 0");
    }
    if (in->position > 8 * in->count) {
        fail(in, "");
    }
    if (in->position > kMostChannelBits * result.channels) {
        fail(in, "more bits than the input buffer of a decoder");
    }
    result.fault = in->fault;
    result.is_cut = in->is_cut;
    result.bytes = in->fault == nullptr ? in->position / 8 : 0;
    return result;
}

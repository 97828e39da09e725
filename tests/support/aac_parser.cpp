#include "tests/support/aac_parser.h"

#include "aacenc/band_tables.h"
#include "aacenc/huffman_tables.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <unordered_map>

namespace {

struct Reader {
    std::span<const uint8_t> bytes;
    size_t position = 0; // in bits
    std::string error;

    int fail(const std::string &fault)
    {
        if (error.empty()) {
            error = fault + " at bit " + std::to_string(position);
        }
        return 0;
    }

    int get(int count)
    {
        int value = 0;
        for (int i = 0; i < count; i++, position++) {
            if (position / 8 >= bytes.size()) {
                return fail("the data ends too early");
            }
            value = value << 1 | (bytes[position / 8] >> (7 - position % 8) & 1);
        }
        return value;
    }

    void expect(int count, int value, const char *name)
    {
        if (get(count) != value) {
            fail(std::string("unexpected ") + name);
        }
    }
};

using Codebook = std::unordered_map<uint32_t, int>; // length << 24 | codeword to index

Codebook make_codebook(std::span<const uint32_t> entries)
{
    Codebook book;
    for (const uint32_t entry : entries) {
        book.emplace(entry, static_cast<int>(book.size()));
    }
    return book;
}

constexpr size_t kScalefactorBook = 12;
constexpr int kReservedBook = 12;
constexpr int kNoiseOffset = 256; // of the first noise energy

int get_codeword(Reader &in, size_t number)
{
    static const Codebook books[12] = {
        make_codebook(huff1), make_codebook(huff2),  make_codebook(huff3),  make_codebook(huff4),
        make_codebook(huff5), make_codebook(huff6),  make_codebook(huff7),  make_codebook(huff8),
        make_codebook(huff9), make_codebook(huff10), make_codebook(huff11), make_codebook(huff12)};
    uint32_t code = 0;
    for (uint32_t length = 1; length <= 19; length++) {
        code = code << 1 | static_cast<uint32_t>(in.get(1));
        const auto found = books[number - 1].find(length << 24 | code);
        if (found != books[number - 1].end()) {
            return found->second;
        }
    }
    return in.fail("unknown codeword");
}

std::vector<int> band_offsets(int sampling_index)
{
    const uint8_t *row = sr_info_aac[sr_info_index[sampling_index - 3]];
    std::vector<int> offsets = {0};
    for (int band = 1; band <= row[0]; band++) {
        offsets.push_back(offsets.back() + row[band]);
    }
    return offsets;
}

void parse_section_data(Reader &in, size_t max_sfb, AacChannel &channel)
{
    while (channel.codebooks.size() < max_sfb && in.error.empty()) {
        const int book = in.get(4);
        if (book == kReservedBook || book > kNoiseBook) {
            in.fail("reserved or intensity codebook");
        }
        if (!channel.codebooks.empty() && book == channel.codebooks.back()) {
            in.fail("section that continues the previous one");
        }
        int length = 0;
        int increment = 31;
        while (increment == 31 && in.error.empty()) {
            increment = in.get(5);
            length += increment;
        }
        if (length == 0) {
            in.fail("empty section");
        }
        channel.codebooks.insert(channel.codebooks.end(), static_cast<size_t>(length), book);
    }
    if (channel.codebooks.size() != max_sfb) {
        in.fail("sections do not add up to the bands");
    }
}

void parse_scalefactors(Reader &in, AacChannel &channel)
{
    int last = channel.global_gain;
    int noise = channel.global_gain - kNoiseOffset;
    bool first_noise = true;
    for (const int book : channel.codebooks) {
        if (book == kNoiseBook) {
            noise +=
                first_noise ? in.get(9) : get_codeword(in, kScalefactorBook) - kScalefactorZero;
            first_noise = false;
        } else if (book != kZeroBook) {
            last += get_codeword(in, kScalefactorBook) - kScalefactorZero;
            if (last < 0 || last > 255) {
                in.fail("scalefactor out of range");
            }
        }
        channel.scalefactors.push_back(book == kNoiseBook ? noise : book != kZeroBook ? last : 0);
    }
}

void parse_tns_data(Reader &in)
{
    in.expect(2, 1, "n_filt");
    in.expect(1, 1, "coef_res");
    in.get(6); // length
    const int order = in.get(5);
    if (order > 12) {
        in.fail("TNS order above the profile's");
    }
    if (order != 0) {
        in.expect(2, 0, "direction or coef_compress");
    }
    for (int i = 0; i < order; i++) {
        if (in.get(4) == 8) {
            in.fail("TNS coefficient -8");
        }
    }
}

int get_escape(Reader &in)
{
    int prefix = 4;
    while (prefix <= 12 && in.get(1) == 1) {
        prefix++;
    }
    if (prefix > 12) {
        return in.fail("escape above 8191");
    }
    return (1 << prefix) + in.get(prefix);
}

void parse_group(Reader &in, int book, int *values)
{
    constexpr int kBase[12] = {0, 3, 3, 3, 3, 9, 9, 8, 8, 13, 13, 17};
    const int group = book <= 4 ? 4 : 2;
    const bool is_signed = book == 1 || book == 2 || book == 5 || book == 6;
    int index = get_codeword(in, static_cast<size_t>(book));
    for (int i = group - 1; i >= 0; i--, index /= kBase[book]) {
        values[i] = index % kBase[book] - (is_signed ? kBase[book] / 2 : 0);
    }
    bool negative[4] = {};
    for (int i = 0; i < group && !is_signed; i++) {
        negative[i] = values[i] != 0 && in.get(1) == 1;
    }
    for (int i = 0; i < group; i++) {
        const int magnitude = book == kEscapeBook && values[i] == 16 ? get_escape(in) : values[i];
        values[i] = negative[i] ? -magnitude : magnitude;
    }
}

// Largest magnitude of the codebooks below 2 * i + 1.
constexpr int kLargest[6] = {0, 1, 2, 4, 7, 12};

void parse_spectral_data(Reader &in, AacChannel &channel, const std::vector<int> &offsets)
{
    for (size_t sfb = 0; sfb < channel.codebooks.size(); sfb++) {
        const int book = channel.codebooks[sfb];
        if (book == kZeroBook || book == kNoiseBook) {
            continue;
        }
        const double step = std::exp2(0.25 * (channel.scalefactors[sfb] - 100));
        const auto start = static_cast<size_t>(offsets[sfb]);
        const auto end = static_cast<size_t>(offsets[sfb + 1]);
        for (size_t k = start; k < end && in.error.empty(); k += book <= 4 ? 4 : 2) {
            parse_group(in, book, &channel.quantised[k]);
        }
        int largest = 0;
        for (size_t k = start; k < end; k++) {
            const int value = channel.quantised[k];
            channel.lines[k] = std::copysign(std::pow(std::abs(value), 4.0 / 3) * step, value);
            largest = std::max(largest, std::abs(value));
        }
        if (largest <= kLargest[(book - 1) / 2]) {
            in.fail("codebook for larger values");
        }
    }
}

void parse_ics_info(Reader &in, const std::vector<int> &offsets)
{
    in.expect(4, 0, "ics_reserved_bit, window_sequence or window_shape");
    in.expect(6, static_cast<int>(offsets.size()) - 1, "max_sfb");
    in.expect(1, 0, "predictor_data_present");
}

void parse_channel_stream(Reader &in, const std::vector<int> &offsets, bool common_window,
                          AacChannel &channel)
{
    channel.global_gain = in.get(8);
    if (!common_window) {
        parse_ics_info(in, offsets);
    }
    parse_section_data(in, offsets.size() - 1, channel);
    parse_scalefactors(in, channel);
    in.expect(1, 0, "pulse_data_present");
    channel.tns_present = in.get(1) == 1;
    if (channel.tns_present) {
        parse_tns_data(in);
    }
    in.expect(1, 0, "gain_control_data_present");
    if (in.error.empty()) {
        parse_spectral_data(in, channel, offsets);
    }
}

} // namespace

std::string parse_raw_data_block(std::span<const uint8_t> bytes, int sampling_index,
                                 AacFrame *frame)
{
    Reader in = {bytes, 0, {}};
    *frame = {};
    const int id = in.get(3);
    if (id > 1) {
        in.fail("neither a single channel nor a channel pair element");
    }
    frame->channels.resize(id == 0 ? 1 : 2);
    in.expect(4, 0, "element_instance_tag");
    const std::vector<int> offsets = band_offsets(sampling_index);
    frame->mid_side = frame->channels.size() == 2 && in.get(1) == 1; // common_window
    if (frame->mid_side) {
        parse_ics_info(in, offsets);
        in.expect(2, 1, "ms_mask_present");
        for (size_t band = 1; band < offsets.size(); band++) {
            in.expect(1, 1, "ms_used");
        }
    }
    for (AacChannel &channel : frame->channels) {
        parse_channel_stream(in, offsets, frame->mid_side, channel);
    }
    in.expect(3, 7, "element in place of END");
    frame->bits = static_cast<int>(in.position);
    in.expect(static_cast<int>(-in.position % 8), 0, "alignment bits");
    if (in.position != bytes.size() * 8) {
        in.fail("bytes after the frame");
    }
    return in.error;
}

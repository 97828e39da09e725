#include "tests/support/aac_parser.h"

#include <cmath>
#include <cstdlib>
#include <map>
#include <utility>

#include "aacenc/band_tables.h"
#include "aacenc/huffman_tables.h"

namespace {

struct Reader {
    std::span<const uint8_t> bytes;
    size_t position = 0; // in bits
    std::string error;

    uint32_t get(int count)
    {
        uint32_t value = 0;
        for (int i = 0; i < count; i++, position++) {
            if (position / 8 >= bytes.size())
                return fail("the data ends too early");
            value = value << 1 | (bytes[position / 8] >> (7 - position % 8) & 1);
        }
        return value;
    }

    uint32_t fail(const std::string &what)
    {
        if (error.empty())
            error = what + " at bit " + std::to_string(position);
        return 0;
    }

    void expect(int count, uint32_t value, const char *name)
    {
        if (get(count) != value)
            fail(std::string("unexpected ") + name);
    }
};

using Codebook = std::map<std::pair<uint32_t, uint32_t>, int>; // (length, code) to index

Codebook make_codebook(std::span<const uint32_t> entries)
{
    Codebook book;
    for (size_t i = 0; i < entries.size(); i++)
        book[{entries[i] >> 24, entries[i] & 0xFFFFFF}] = static_cast<int>(i);
    return book;
}

const Codebook &codebook(int number)
{
    static const std::array<Codebook, 12> books = {
        make_codebook(huff1), make_codebook(huff2),  make_codebook(huff3),  make_codebook(huff4),
        make_codebook(huff5), make_codebook(huff6),  make_codebook(huff7),  make_codebook(huff8),
        make_codebook(huff9), make_codebook(huff10), make_codebook(huff11), make_codebook(huff12)};
    return books[static_cast<size_t>(number - 1)];
}

constexpr int kScalefactorBook = 12;

int get_codeword(Reader &in, int number)
{
    uint32_t code = 0;
    for (uint32_t length = 1; length <= 19; length++) {
        code = code << 1 | in.get(1);
        const auto found = codebook(number).find({length, code});
        if (found != codebook(number).end())
            return found->second;
    }
    return static_cast<int>(in.fail("unknown codeword"));
}

void parse_section_data(Reader &in, AacChannel &channel)
{
    while (static_cast<int>(channel.codebooks.size()) < channel.max_sfb && in.error.empty()) {
        const int book = static_cast<int>(in.get(4));
        if (book == 12 || book == 14 || book == 15)
            in.fail("reserved or intensity codebook");
        int length = 0;
        uint32_t increment = 31;
        while (increment == 31 && in.error.empty()) {
            increment = in.get(5);
            length += static_cast<int>(increment);
        }
        if (length == 0)
            in.fail("empty section");
        channel.codebooks.insert(channel.codebooks.end(), static_cast<size_t>(length), book);
    }
    if (static_cast<int>(channel.codebooks.size()) != channel.max_sfb)
        in.fail("sections do not add up to the bands");
}

void parse_scalefactors(Reader &in, AacChannel &channel)
{
    int last = channel.global_gain;
    int noise = channel.global_gain - 256; // what the first 9 bits are relative to
    bool first_noise = true;
    for (const int book : channel.codebooks) {
        int value = 0;
        if (book == 13) {
            noise +=
                first_noise ? static_cast<int>(in.get(9)) : get_codeword(in, kScalefactorBook) - 60;
            first_noise = false;
            value = noise;
        } else if (book != 0) {
            last += get_codeword(in, kScalefactorBook) - 60;
            value = last;
            if (value < 0 || value > 255)
                in.fail("scalefactor out of range");
        }
        channel.scalefactors.push_back(value);
    }
}

void parse_tns_data(Reader &in, AacChannel &channel)
{
    const uint32_t filters = in.get(2);
    const int resolution = filters != 0 ? static_cast<int>(in.get(1)) + 3 : 0;
    for (uint32_t f = 0; f < filters; f++) {
        AacTnsData data;
        data.length = static_cast<int>(in.get(6));
        const uint32_t order = in.get(5);
        if (order > 12)
            in.fail("TNS order above the profile's");
        if (order != 0) {
            data.direction = static_cast<int>(in.get(1));
            const int bits = resolution - static_cast<int>(in.get(1));
            for (uint32_t i = 0; i < order; i++) {
                const int raw = static_cast<int>(in.get(bits));
                data.coefficients.push_back(raw >> (bits - 1) != 0 ? raw - (1 << bits) : raw);
            }
        }
        channel.tns_filters.push_back(data);
    }
}

int get_escape(Reader &in, int magnitude)
{
    if (magnitude != 16)
        return magnitude;
    int prefix = 4;
    while (prefix <= 12 && in.get(1) == 1)
        prefix++;
    if (prefix > 12)
        in.fail("escape above 8191");
    return (1 << prefix) + static_cast<int>(in.get(prefix));
}

void parse_group(Reader &in, int book, int *values)
{
    constexpr int kBase[12] = {0, 3, 3, 3, 3, 9, 9, 8, 8, 13, 13, 17};
    const int group = book <= 4 ? 4 : 2;
    const bool is_signed = book == 1 || book == 2 || book == 5 || book == 6;
    int index = get_codeword(in, book);
    for (int i = group - 1; i >= 0; i--, index /= kBase[book])
        values[i] = index % kBase[book] - (is_signed ? kBase[book] / 2 : 0);
    bool negative[4] = {};
    for (int i = 0; i < group && !is_signed; i++)
        negative[i] = values[i] != 0 && in.get(1) == 1;
    for (int i = 0; i < group; i++) {
        if (book == 11)
            values[i] = get_escape(in, values[i]);
        if (negative[i])
            values[i] = -values[i];
    }
}

void parse_spectral_data(Reader &in, AacChannel &channel, const std::vector<int> &offsets)
{
    for (size_t sfb = 0; sfb < channel.codebooks.size(); sfb++) {
        const int book = channel.codebooks[sfb];
        if (book == 0 || book > 11)
            continue;
        for (int k = offsets[sfb]; k < offsets[sfb + 1] && in.error.empty(); k += book <= 4 ? 4 : 2)
            parse_group(in, book, &channel.quantised[static_cast<size_t>(k)]);
    }
}

int parse_ics_info(Reader &in, const std::vector<int> &offsets)
{
    in.expect(1, 0, "ics_reserved_bit");
    in.expect(2, 0, "window_sequence");
    in.expect(1, 0, "window_shape");
    const int max_sfb = static_cast<int>(in.get(6));
    if (max_sfb >= static_cast<int>(offsets.size()))
        in.fail("more bands than the sample rate has");
    in.expect(1, 0, "predictor_data_present");
    return max_sfb;
}

void parse_channel_stream(Reader &in, int common_max_sfb, const std::vector<int> &offsets,
                          AacChannel &channel)
{
    channel.global_gain = static_cast<int>(in.get(8));
    channel.max_sfb = common_max_sfb >= 0 ? common_max_sfb : parse_ics_info(in, offsets);
    if (!in.error.empty())
        return;
    parse_section_data(in, channel);
    parse_scalefactors(in, channel);
    in.expect(1, 0, "pulse_data_present");
    channel.tns_present = in.get(1) == 1;
    if (channel.tns_present)
        parse_tns_data(in, channel);
    in.expect(1, 0, "gain_control_data_present");
    if (in.error.empty())
        parse_spectral_data(in, channel, offsets);
}

void parse_element(Reader &in, const std::vector<int> &offsets, AacFrame *frame)
{
    const uint32_t id = in.get(3);
    if (id > 1)
        in.fail("neither a single channel nor a channel pair element");
    frame->pair = id == 1;
    in.expect(4, 0, "element_instance_tag");
    int common_max_sfb = -1;
    if (frame->pair && in.get(1) == 1) {
        frame->common_window = true;
        common_max_sfb = parse_ics_info(in, offsets);
        const uint32_t mask = in.get(2);
        for (int sfb = 0; mask == 1 && sfb < common_max_sfb; sfb++)
            frame->ms_used.push_back(in.get(1) == 1);
    }
    frame->channels.resize(frame->pair ? 2 : 1);
    for (AacChannel &channel : frame->channels)
        parse_channel_stream(in, common_max_sfb, offsets, channel);
}

} // namespace

std::string parse_raw_data_block(std::span<const uint8_t> bytes, int sampling_index,
                                 AacFrame *frame)
{
    Reader in = {bytes, 0, {}};
    *frame = {};
    parse_element(in, aac_band_offsets(sampling_index), frame);
    in.expect(3, 7, "element in place of END");
    frame->bits = static_cast<int>(in.position);
    while (in.error.empty() && in.position % 8 != 0)
        in.expect(1, 0, "alignment bit");
    if (in.error.empty() && in.position != bytes.size() * 8)
        in.fail("bytes behind the frame");
    return in.error;
}

std::string parse_adts_header(std::span<const uint8_t> bytes, AdtsHeader *header)
{
    Reader in = {bytes, 0, {}};
    in.expect(12, 0xFFF, "syncword");
    header->id = static_cast<int>(in.get(1));
    in.expect(2, 0, "layer");
    in.expect(1, 1, "protection_absent");
    in.expect(2, 1, "profile");
    header->sampling_index = static_cast<int>(in.get(4));
    in.expect(1, 0, "private_bit");
    header->channels = static_cast<int>(in.get(3));
    in.expect(4, 0, "original, home or copyright bits");
    header->frame_bytes = static_cast<int>(in.get(13));
    in.expect(11, 0x7FF, "adts_buffer_fullness");
    in.expect(2, 0, "number of raw data blocks");
    return in.error;
}

std::vector<int> aac_band_offsets(int sampling_index)
{
    const uint8_t *row = sr_info_aac[sr_info_index[sampling_index - 3]];
    std::vector<int> offsets = {0};
    for (int band = 1; band <= row[0]; band++)
        offsets.push_back(offsets.back() + row[band]);
    return offsets;
}

std::vector<double> aac_dequantise(const AacChannel &channel, int sampling_index)
{
    const std::vector<int> offsets = aac_band_offsets(sampling_index);
    std::vector<double> lines(1024);
    for (size_t sfb = 0; sfb < channel.codebooks.size(); sfb++) {
        const double step = std::exp2(0.25 * (channel.scalefactors[sfb] - 100));
        for (int k = offsets[sfb]; k < offsets[sfb + 1]; k++) {
            const int q = channel.quantised[static_cast<size_t>(k)];
            lines[static_cast<size_t>(k)] = std::copysign(std::pow(std::abs(q), 4.0 / 3), q) * step;
        }
    }
    return lines;
}

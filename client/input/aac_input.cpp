#include "client/input/aac_input.h"

#include "client/failure.h"
#include "client/input/aac_rates.h"

using bytes = std::span<const uint8_t>;

// audioObjectType, ISO/IEC 14496-3, table 1.17
static constexpr unsigned kObjectTypeMain = 1, kObjectTypeLtp = 4; // LC and SSR are between them
static constexpr unsigned kObjectTypeSbr = 5, kObjectTypePs = 29;
static constexpr unsigned kObjectTypeEscape = 31;

static constexpr unsigned kRateEscape = 15; // samplingFrequencyIndex: the rate follows in 24 bits

// syncword to number_of_raw_data_blocks_in_frame, and crc_check
static constexpr size_t kAdtsBytes = 7, kAdtsCrcBytes = 2;

// source: ISO/IEC 14496-3, 1.A.2.2, adts_fixed_header() and adts_variable_header()
struct adts_header {
    unsigned profile, sampling_frequency_index, channel_configuration;
    size_t header_bytes, frame_bytes;
    unsigned more_blocks; // raw data blocks after the first
};

[[noreturn]] static void refuse(const aac_input &aac, const std::string &what)
{
    throw failure(exit_code::unsupported, aac.file->path + ": " + what);
}

static std::optional<adts_header> read_header(bytes data)
{
    // syncword and layer
    if (data.size() < kAdtsBytes || data[0] != 0xFF || (data[1] & 0xF6) != 0xF0) {
        return std::nullopt;
    }
    const bool has_crc = (data[1] & 1) == 0; // protection_absent
    const auto at = [data](size_t index) { return unsigned{data[index]}; };
    const adts_header header = {
        .profile = at(2) >> 6,
        .sampling_frequency_index = at(2) >> 2 & 0xF,
        .channel_configuration = (at(2) & 1) << 2 | at(3) >> 6,
        .header_bytes = kAdtsBytes + (has_crc ? kAdtsCrcBytes : 0),
        .frame_bytes = (at(3) & 3) << 11 | at(4) << 3 | at(5) >> 5,
        .more_blocks = at(6) & 3,
    };
    const bool fits = header.frame_bytes > header.header_bytes && header.frame_bytes == data.size();
    return fits && header.sampling_frequency_index < kAacRates.size() ? std::optional(header)
                                                                      : std::nullopt;
}

// AudioSpecificConfig: audioObjectType, samplingFrequencyIndex, channelConfiguration and the flags
// of GASpecificConfig, all 0.
static std::vector<uint8_t> make_config(const adts_header &header)
{
    const unsigned bits = (header.profile + 1) << 11 | header.sampling_frequency_index << 7 |
                          header.channel_configuration << 3;
    return {static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
}

// returns: the next number; bits after the end are 0
static unsigned take_bits(bytes data, size_t &position, unsigned count)
{
    unsigned value = 0;
    for (; count > 0; count--, position++) {
        const unsigned byte = position / 8 < data.size() ? data[position / 8] : 0;
        value = value << 1 | (byte >> (7 - position % 8) & 1);
    }
    return value;
}

static unsigned take_object_type(bytes config, size_t &position)
{
    const unsigned type = take_bits(config, position, 5);
    return type == kObjectTypeEscape ? 32 + take_bits(config, position, 6) : type;
}

static int take_rate(bytes config, size_t &position)
{
    const unsigned index = take_bits(config, position, 4);
    return index < kAacRates.size() ? kAacRates[index]
           : index == kRateEscape   ? static_cast<int>(take_bits(config, position, 24))
                                    : 0;
}

// The core's rate gives the duration of the units, also when an extension doubles the rate.
// source: ISO/IEC 14496-3, 1.6.2.1, AudioSpecificConfig
static void read_config(aac_input &aac, bytes config)
{
    size_t position = 0;
    unsigned type = take_object_type(config, position);
    aac.rate = take_rate(config, position);
    (void)take_bits(config, position, 4); // channelConfiguration
    if (type == kObjectTypeSbr || type == kObjectTypePs) {
        (void)take_rate(config, position);
        type = take_object_type(config, position);
    }
    const bool is_short = take_bits(config, position, 1) != 0; // frameLengthFlag
    if (aac.rate == 0) {
        throw failure(exit_code::input, aac.file->path + ": its AAC configuration is damaged");
    }
    if (type < kObjectTypeMain || type > kObjectTypeLtp || is_short) {
        refuse(
            aac,
            "its AAC (object type " + std::to_string(type) +
                ") is not in units of 1024 samples, and only such units can be put into the file");
    }
    aac.config.assign(config.begin(), config.end());
}

// Takes the stream's configuration from the first ADTS header.
// returns: the access unit in a packet
static bytes unit_in(aac_input &aac, bytes packet)
{
    if (!aac.is_framed) {
        return packet;
    }
    const std::optional<adts_header> header = read_header(packet);
    if (!header) {
        throw failure(exit_code::input, aac.file->path + ": an ADTS frame is damaged");
    }
    if (header->more_blocks != 0) {
        refuse(aac, "an ADTS frame holds several access units, which cannot be separated");
    }
    const std::vector<uint8_t> config = make_config(*header);
    if (aac.config.empty()) {
        aac.config = config;
        aac.rate = kAacRates[header->sampling_frequency_index];
        aac.channels = static_cast<int>(header->channel_configuration);
    }
    if (config != aac.config) {
        refuse(aac, "changes its sampling rate or its channels within the file");
    }
    return packet.subspan(header->header_bytes);
}

static bytes packet_bytes(const AVPacket &packet)
{
    return {packet.data, static_cast<size_t>(packet.size)};
}

static void read_packet(aac_input &aac)
{
    aac.packet = media_file_read(*aac.file);
    if (aac.packet != nullptr) {
        const int64_t step_us = aac.packets == 0 ? 0 : aac_input_span_us(aac, 1);
        aac.last_us =
            media_file_time_us(*aac.file, aac.packet->pts).value_or(aac.last_us + step_us);
        aac.packets++;
    }
}

std::unique_ptr<aac_input> aac_input_open(const std::string &path, media_file *video_file)
{
    std::unique_ptr<aac_input> aac = std::make_unique<aac_input>();
    aac->file = media_file_open(path, AVMEDIA_TYPE_AUDIO);
    const AVCodecParameters &codec = *aac->file->stream->codecpar;
    if (codec.codec_id != AV_CODEC_ID_AAC) {
        refuse(*aac, std::string("its audio is ") + avcodec_get_name(codec.codec_id) +
                         "; only AAC can be put into the file");
    }
    if (video_file != nullptr) {
        media_file_join(*aac->file, *video_file);
    }
    read_packet(*aac);
    if (aac->packet == nullptr) {
        throw failure(exit_code::input, path + ": holds no audio");
    }
    aac->begin_us = aac->last_us;
    aac->is_framed = codec.extradata_size == 0;
    if (aac->is_framed) {
        (void)unit_in(*aac, packet_bytes(*aac->packet));
    } else {
        read_config(*aac, {codec.extradata, static_cast<size_t>(codec.extradata_size)});
        aac->channels = codec.ch_layout.nb_channels;
    }
    return aac;
}

int64_t aac_input_span_us(const aac_input &aac, int64_t units)
{
    return av_rescale(units * kAacUnitSamples, kSecondUs, aac.rate);
}

std::optional<std::span<const uint8_t>> aac_input_next(aac_input &aac)
{
    if (aac.packet == nullptr) {
        return std::nullopt;
    }
    aac.given = std::move(aac.packet);
    const bytes unit = unit_in(aac, packet_bytes(*aac.given));
    read_packet(aac);
    return unit;
}

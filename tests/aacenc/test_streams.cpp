#include "aacenc/band_tables.h"
#include "aacenc/huffman_tables.h"
#include "recovery/aac_frame.h"
#include "tests/aacenc/encoder_harness.h"
#include "tests/support/programme.h"
#include "tests/support/stream_hash.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

static std::vector<uint8_t> adts_header(const EncoderOptions &options, size_t unit_bytes)
{
    const auto rate = std::find(SampleRates, SampleRates + 9, options.sample_rate);
    const uint64_t index = static_cast<uint64_t>(rate - SampleRates) + 3;
    const uint64_t header = 0xFFF1'4000'001F'FCULL | uint64_t{options.mpeg2_id != 0} << 43 |
                            index << 34 | static_cast<uint64_t>(options.channels) << 30 |
                            unit_bytes << 13;
    std::vector<uint8_t> bytes;
    for (int shift = 48; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(header >> shift));
    }
    return bytes;
}

struct Stream {
    std::vector<aac_frame_values> frames;
    std::vector<uint8_t> adts;
};

// The stream carries the values that the coder quantised last.
static void expect_quantised(Encoder &encoder, const aac_frame_values &frame)
{
    const EncTfState *tf = encoder.tf();
    const aac_channel_values &channel = frame.channel[frame.channels - 1];
    const AacEncCoderInfo *coder = tf->coderInfo[encoder.state()->channels - 1];
    for (int band = 0; band < frame.bands; band++) {
        if (channel.codebook[band] != kZeroBook && channel.codebook[band] != kNoiseBook) {
            EXPECT_TRUE(std::equal(tf->work[0] + coder->swbOffset[band],
                                   tf->work[0] + coder->swbOffset[band + 1],
                                   channel.quantised + coder->swbOffset[band]));
        }
    }
}

// The bits of a frame and the bits left add up to a decoder's input buffer. The reservoir changes
// by the difference between the mean and the access unit.
static void expect_account(Encoder &encoder, int32_t frame_bits, int32_t unit_bits,
                           int32_t reservoir)
{
    const AacEncState *state = encoder.state();
    EXPECT_GE(encoder.tf()->bitsLeft, 0);
    EXPECT_EQ(frame_bits + encoder.tf()->bitsLeft, 6144 * state->channels);
    EXPECT_EQ(state->bitsAvailable, reservoir + state->meanBits - unit_bits);
}

// Encodes a signal and parses every access unit.
static Stream encode_and_parse(const EncoderOptions &options, const std::vector<int16_t> &pcm,
                               size_t mid_side = 0)
{
    Stream stream;
    Encoder encoder(options);
    encoder.state()->midSide = static_cast<int32_t>(mid_side);
    const size_t samples = 1024 * static_cast<size_t>(options.channels);
    uint32_t total_bits = 0;
    for (size_t at = 0; at + samples <= pcm.size(); at += samples) {
        const int32_t reservoir = std::min(encoder.state()->bitsAvailable, 8184);
        std::vector<uint8_t> unit = encoder.encode(pcm.data() + at);
        EXPECT_EQ(encoder.result, AACENC_OK);
        const bool adts = options.format == AACENC_FORMAT_ADTS;
        const std::vector<uint8_t> header = adts_header(options, unit.size() + (adts ? 0 : 7));
        if (!adts) {
            unit.insert(unit.begin(), header.begin(), header.end());
        }
        stream.adts.insert(stream.adts.end(), unit.begin(), unit.end());
        EXPECT_TRUE(std::equal(header.begin(), header.end(), unit.begin()));
        unit.erase(unit.begin(), unit.begin() + 7);

        aac_frame_values &values = stream.frames.emplace_back();
        const int sampling_index = encoder.tf()->samplingIndex + 3;
        const int32_t unit_bytes = static_cast<int32_t>(unit.size());
        const aac_frame frame = read_aac_frame(unit.data(), unit_bytes, sampling_index, &values);
        EXPECT_STREQ(frame.fault, nullptr);
        EXPECT_EQ(frame.bytes, unit_bytes);
        EXPECT_EQ(values.channels, options.channels);
        if (frame.fault == nullptr) {
            expect_quantised(encoder, values);
        }
        expect_account(encoder, frame.bits, static_cast<int32_t>(8 * unit.size()), reservoir);
        total_bits += 8 * static_cast<uint32_t>(unit.size());
        EXPECT_EQ(encoder.state()->totalBits, total_bits);
    }
    for (const aac_channel_values &channel : stream.frames[0].channel) {
        EXPECT_THAT(channel.quantised, testing::Each(0)); // whatever the first input
    }
    return stream;
}

// The sample programme from a frame on: its first channel is mostly voice, its second mostly music.
static Signal programme(int first_channel, size_t frame)
{
    return [=](int channel, int n) {
        const size_t at = 2 * (1024 * frame + static_cast<size_t>(n));
        return sample_programme().pcm[at + static_cast<size_t>((first_channel + channel) % 2)] /
               32768.0;
    };
}

// Loud and quiet by turns, at random: the search starts from the wrong end each time.
static Signal bursts()
{
    return [loud = noise(6, 1), level = noise(7, 1), amplitude = 0.0](int channel, int n) mutable {
        if (n % 512 == 0 && channel == 0) {
            amplitude = level(0, n) > 0 ? 1 : 0.0002;
        }
        return amplitude * (loud(channel, n) > 0 ? 1 : -1);
    };
}

static Signal matrix_signal(int number, size_t turn)
{
    const Signal signals[] = {tone(0, 0), noise(5, 1), square_wave(turn % 2 != 0 ? 1 : 61),
                              impulses(1500), bursts()};
    return number < 5 ? signals[number] : programme(number % 2, turn * 7 % 430);
}

struct MatrixPoint {
    EncoderOptions options;
    int signal;
};

static std::vector<MatrixPoint> matrix_points()
{
    std::vector<MatrixPoint> points;
    for (const uint16_t rate : SampleRates) {
        for (const int32_t bit_rate :
             {16000, 24000, 40000, 64000, 96000, 128000, 192000, 256000, 288000}) {
            if (bit_rate > 6 * rate && bit_rate != 288000) {
                continue; // the highest rate represents all above the limit
            }
            for (int i = 0; i < 32 * 7; i++) {
                points.push_back({{.sample_rate = rate,
                                   .channels = 1 + (i & 1),
                                   .bit_rate = bit_rate,
                                   .format = static_cast<uint8_t>(i & 2 ? AACENC_FORMAT_ADTS
                                                                        : AACENC_FORMAT_RAW),
                                   .pns = i >> 2 & 1,
                                   .tns = i >> 3 & 1,
                                   .mpeg2_id = i >> 4 & 1},
                                  i / 32});
            }
        }
    }
    return points;
}

static std::string describe(const MatrixPoint &point)
{
    const EncoderOptions &options = point.options;
    return std::to_string(options.bit_rate) +
           (options.format == AACENC_FORMAT_ADTS ? " adts" : " raw") +
           (options.mpeg2_id ? " mpeg2" : "") + (options.pns ? " pns" : "") +
           (options.tns ? " tns" : "") + " signal" + std::to_string(point.signal);
}

// Appends a stream to a file of its sample rate and number of channels, for decoders to judge, and
// its description to a list.
static void keep_stream(const std::string &path, const MatrixPoint &point, const Stream &stream)
{
    std::ofstream(path + ".aac", std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char *>(stream.adts.data()),
               static_cast<std::streamsize>(stream.adts.size()));
    std::ofstream(path + ".txt", std::ios::app)
        << stream.adts.size() << ' ' << stream.frames.size() << ' ' << describe(point) << '\n';
}

// Of the streams of an ordinary run, which every machine makes bit for bit.
static constexpr uint64_t kMatrixHash = 0x12f4e4d4a172f5f9;

// Every combination of sample rate, bit rate, channels, framing, ID bit, tools and signal: one in
// 29 of them in an ordinary run, all with AAC_MATRIX=whole. Every second one may use mid/side.
// AAC_STREAMS names a folder for them.
TEST(Streams, EveryConfigurationObeysTheSyntax)
{
    uint64_t hash = kHashStart;
    const char *folder = std::getenv("AAC_STREAMS");
    const bool whole = std::getenv("AAC_MATRIX") != nullptr;
    const std::vector<MatrixPoint> points = matrix_points();
    for (size_t turn = 0; turn < points.size(); turn += whole ? 1 : 29) {
        const MatrixPoint &point = points[turn];
        const int channels = point.options.channels;
        const std::string group =
            std::to_string(point.options.sample_rate) + "_" + std::to_string(channels);
        SCOPED_TRACE(group + ": " + describe(point));
        const Stream stream = encode_and_parse(
            point.options, render(matrix_signal(point.signal, turn), channels, whole ? 32 : 12),
            turn % 2); // mid/side
        hash = stream_hash(hash, stream.adts);
        if (folder != nullptr) {
            keep_stream(std::string(folder) + "/" + group, point, stream);
        }
    }
    EXPECT_TRUE(whole || hash == kMatrixHash) << std::hex << hash;
}

TEST(Streams, ToolsAppearWhenTheyAreOn)
{
    const auto shaped = encode_and_parse({.tns = 1}, render(impulses(900), 2, 20)).frames;
    for (size_t frame = 0; frame < shaped.size(); frame++) {
        for (const aac_channel_values &channel : shaped[frame].channel) {
            EXPECT_EQ(channel.has_tns, frame >= 3) << frame;
        }
    }

    const auto noise_bands = [](const EncoderOptions &options) {
        int64_t count = 0;
        const std::vector<int16_t> pcm = render(noise(8, 1), 2, 20);
        for (const aac_frame_values &frame : encode_and_parse(options, pcm).frames) {
            for (const aac_channel_values &channel : frame.channel) {
                count += std::count(channel.codebook, channel.codebook + frame.bands, kNoiseBook);
            }
        }
        return count;
    };
    EXPECT_GT(noise_bands({.bit_rate = 64000, .pns = 1}), 19 * 2 * 20);
    EXPECT_EQ(noise_bands({.bit_rate = 64000, .pns = 1, .mpeg2_id = 1}), 0);
    EXPECT_EQ(noise_bands({.bit_rate = 64000}), 0);
}

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>

#include "aacenc/band_tables.h"
#include "aacenc/filterbank.h"
#include "tests/aacenc/encoder_harness.h"
#include "tests/support/aac_parser.h"
#include "tests/support/programme.h"
#include "tests/support/stream_hash.h"

// Encodes a signal and takes every access unit apart.
static std::vector<AacFrame> encode_and_parse(const EncoderOptions &options,
                                              const std::vector<int16_t> &pcm)
{
    std::vector<AacFrame> frames;
    Encoder encoder(options);
    const size_t samples = 1024 * static_cast<size_t>(options.channels);
    const int sampling_index = encoder.tf()->samplingIndex + 3;
    uint32_t total_bits = 0;
    for (size_t at = 0; at + samples <= pcm.size(); at += samples) {
        std::vector<uint8_t> unit = encoder.encode(pcm.data() + at);
        EXPECT_EQ(encoder.result, AACENC_OK);
        if (options.format == AACENC_FORMAT_ADTS) {
            AdtsHeader header;
            EXPECT_EQ(parse_adts_header(unit, &header), "");
            EXPECT_EQ(header.sampling_index, sampling_index);
            EXPECT_EQ(header.channels, options.channels);
            EXPECT_EQ(header.id, options.mpeg2_id);
            EXPECT_EQ(header.frame_bytes, static_cast<int>(unit.size()));
            unit.erase(unit.begin(), unit.begin() + 7);
        }
        AacFrame &frame = frames.emplace_back();
        EXPECT_EQ(parse_raw_data_block(unit, sampling_index, &frame), "");
        EXPECT_EQ(frame.channels.size(), static_cast<size_t>(options.channels));
        EXPECT_LE(frame.bits, 6144 * options.channels);
        total_bits += 8 * static_cast<uint32_t>(unit.size());
        EXPECT_EQ(encoder.state()->totalBits, total_bits);
        EXPECT_LE(encoder.state()->bitsAvailable, 8184 + encoder.state()->meanBits);
    }
    return frames;
}

static std::vector<int16_t> excerpt(int channels, size_t frames)
{
    std::vector<int16_t> samples;
    for (size_t i = 0; i < 2 * 1024 * frames; i += 3 - static_cast<size_t>(channels))
        samples.push_back(sample_programme().pcm[i]);
    return samples;
}

// Loud after quiet and quiet after loud, at random: the search starts from the wrong end each time.
static Signal bursts()
{
    return [loud = noise(6, 1), level = noise(7, 1), amplitude = 0.0](int channel, int n) mutable {
        if (n % 512 == 0 && channel == 0)
            amplitude = level(0, n) > 0 ? 1 : 0.0002;
        return amplitude * (loud(channel, n) > 0 ? 1 : -1);
    };
}

// Every sample rate with either channel count and framing, each tool, and bit rates from the lowest
// to beyond the highest, over signals that strain the coder. The values of the other parameters
// rotate, so that neighbours differ in all of them.
TEST(Streams, EveryConfigurationObeysTheSyntax)
{
    constexpr int kFrames = 12;
    const Signal signals[] = {silence(),      noise(5, 1),     square_wave(1), square_wave(61),
                              impulses(1500), tone(0.1234, 1), sweep(8192),    bursts()};
    int turn = 0;
    for (const uint16_t rate : SampleRates) {
        for (const int32_t bit_rate : {16000, 32000, 64000, 96000, 128000, 192000, 400000}) {
            for (size_t s = 0; s <= std::size(signals); s++, turn++) {
                const EncoderOptions options = {
                    .sample_rate = rate,
                    .channels = 1 + turn % 2,
                    .bit_rate = bit_rate,
                    .format = static_cast<uint8_t>(turn % 3 == 0 ? AACENC_FORMAT_ADTS
                                                                 : AACENC_FORMAT_RAW),
                    .pns = turn % 5 == 0,
                    .tns = turn % 7 < 3,
                    .mpeg2_id = turn % 11 == 0,
                };
                SCOPED_TRACE(testing::Message() << rate << " Hz, " << bit_rate << " bit/s, signal "
                                                << s << ", turn " << turn);
                encode_and_parse(options, s < std::size(signals)
                                              ? render(signals[s], options.channels, kFrames)
                                              : excerpt(options.channels, kFrames));
            }
        }
    }
}

// Energy of the input's lines, below the bandwidth, over that of what a decoder makes of them.
static double spectral_snr_db(const EncoderOptions &options)
{
    const std::vector<int16_t> pcm = excerpt(2, 100);
    const std::vector<AacFrame> frames = encode_and_parse(options, pcm);
    const size_t bandwidth = static_cast<size_t>(Encoder(options).tf()->bwLines);
    double energy = 0;
    double error_energy = 0;
    for (size_t frame = 1; frame < frames.size(); frame++) {
        for (size_t ch = 0; ch < 2; ch++) {
            int16_t samples[2048];
            for (size_t i = 0; i < 2048; i++)
                samples[i] = pcm[2 * (1024 * (frame - 1) + i) + ch];
            int32_t lines[1024];
            buffer2freq(samples + 1024, lines, samples, 1);
            const std::vector<double> decoded = aac_dequantise(frames[frame].channels[ch], 3);
            for (size_t k = 0; k < bandwidth; k++) {
                energy += std::pow(lines[k], 2);
                error_energy += std::pow(decoded[k] - lines[k], 2);
            }
        }
    }
    return 10 * std::log10(energy / error_energy);
}

TEST(Streams, DecodedLinesAreThoseOfTheInput)
{
    EXPECT_GT(spectral_snr_db({.bit_rate = 64000}), 15.5);
    EXPECT_GT(spectral_snr_db({.bit_rate = 128000}), 18.0);
    EXPECT_GT(spectral_snr_db({.bit_rate = 256000}), 20.0);
}

TEST(Streams, ToolsAppearWhereTheySwitchOn)
{
    const std::vector<AacFrame> shaped = encode_and_parse({.tns = 1}, render(impulses(900), 2, 20));
    for (size_t frame = 0; frame < shaped.size(); frame++)
        for (const AacChannel &channel : shaped[frame].channels)
            EXPECT_EQ(channel.tns_present, frame >= 3) << frame;

    const auto noise_bands = [](const EncoderOptions &options) {
        int64_t count = 0;
        for (const AacFrame &frame : encode_and_parse(options, render(noise(8, 0.5), 2, 20)))
            for (const AacChannel &channel : frame.channels)
                count += std::count(channel.codebooks.begin(), channel.codebooks.end(), 13);
        return count;
    };
    EXPECT_GT(noise_bands({.bit_rate = 64000, .pns = 1}), 19 * 2 * 20);
    EXPECT_EQ(noise_bands({.bit_rate = 64000, .pns = 1, .mpeg2_id = 1}), 0);
    EXPECT_EQ(noise_bands({.bit_rate = 64000}), 0);
}

TEST(Streams, TheProgrammeGivesTheSameStreamEverywhere)
{
    const std::vector<int16_t> &pcm = sample_programme().pcm;
    Encoder encoder(EncoderOptions{});
    uint64_t hash = kHashStart;
    size_t bytes = 0;
    for (size_t at = 0; at + 2048 <= pcm.size(); at += 2048) {
        const std::vector<uint8_t> unit = encoder.encode(pcm.data() + at);
        hash = stream_hash(hash, unit);
        bytes += unit.size();
    }
    EXPECT_EQ(hash, kProgrammeStreamHash) << std::hex << hash;
    EXPECT_EQ(bytes, kProgrammeStreamBytes);
}

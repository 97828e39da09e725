// Programmes recorded through the OpenMAX IL interface: the sample bit for bit, and unusual
// streams.
#include "tests/support/judges.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"
#include "tests/support/stream_hash.h"

#include <algorithm>
#include <cmath>
#include <cstring>

using Picture = std::vector<Bytes>; // NAL units

static unsigned type_of(const Bytes &unit)
{
    return unit[0] & 0x1Fu;
}

class Streams : public RecorderTest {
  protected:
    static std::vector<Picture> sample(size_t count)
    {
        std::vector<Picture> pictures;
        for (size_t i = 0; i < count; i++) {
            pictures.push_back(split_nal_units(sample_programme().access_units[i]));
        }
        return pictures;
    }

    // Encodes a moving test pattern, without the SEI units of the encoder.
    static std::vector<Picture> encode(const std::string &options)
    {
        const Bytes stream =
            run("ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=30:duration=2 "
                "-c:v libx264 -threads 1 -bf 0 -f h264 -x264-params aud=1:keyint=20:" +
                options + " -")
                .second;
        std::vector<Picture> pictures;
        for (const Bytes &unit : split_nal_units(stream)) {
            if (type_of(unit) == 9) { // an access unit delimiter
                pictures.emplace_back();
            } else if (type_of(unit) != 6) {
                pictures.back().push_back(unit);
            }
        }
        return pictures;
    }

    // Sends pictures; oddly: parameter sets in a buffer of their own, and start codes of three
    // bytes between slices.
    static void send_all(IlClient &client, const std::vector<Picture> &pictures, bool oddly = false)
    {
        send_time_base(client);
        for (size_t i = 0; i < pictures.size(); i++) {
            Bytes data;
            for (const Bytes &unit : pictures[i]) {
                const bool is_slice = type_of(unit) == 1 || type_of(unit) == 5;
                if (oddly && is_slice && !data.empty() && type_of({data[4]}) >= 7) {
                    client.send(TDMBREC_PORT_VIDEO, data, video_time_us(i));
                    data.clear();
                }
                const ptrdiff_t left_out = oddly && is_slice && !data.empty() ? 1 : 0;
                const Bytes joined = join_nal_units({unit});
                data.insert(data.end(), joined.begin() + left_out, joined.end());
            }
            client.send(TDMBREC_PORT_VIDEO, data, video_time_us(i));
        }
        EXPECT_EQ(finish(client), 1u);
    }

    static uint64_t audio_hash(const mp4_reader::track &track, size_t frames)
    {
        const Bytes image = read_file(kBuiltInFile);
        uint64_t hash = kHashStart;
        for (size_t i = 0; i < std::min(frames, track.samples.size()); i++) {
            const mp4_reader::sample &sample = track.samples[i];
            hash = stream_hash(hash, {image.data() + sample.offset, sample.size});
        }
        return hash;
    }

    // The decoded audio is most like the sample's when one frame late and with inverted polarity.
    static void expect_audio_of_sample()
    {
        const Bytes decoded =
            run(std::string("ffmpeg -nostdin -v error -i ") + kBuiltInFile + " -f s16le -").second;
        const std::vector<int16_t> &pcm = sample_programme().pcm;
        ASSERT_GT(decoded.size(), pcm.size());
        std::vector<int16_t> audio(decoded.size() / 2);
        memcpy(audio.data(), decoded.data(), audio.size() * 2);
        const auto likeness = [&](size_t delay) {
            double xy = 0, xx = 0, yy = 0;
            for (size_t i = 200000; i < 240000; i++) { // left and right alternate
                const double x = pcm[i], y = audio[i + 2 * delay];
                xy += x * y;
                xx += x * x;
                yy += y * y;
            }
            return xy / std::sqrt(xx * yy);
        };
        size_t best = 0;
        for (size_t delay = 0; delay <= 4096; delay++) {
            best = std::abs(likeness(delay)) > std::abs(likeness(best)) ? delay : best;
        }
        EXPECT_EQ(best, 1024u);
        EXPECT_LT(likeness(best), -0.99);
    }

    // The recorded units are those of the stream without parameter sets; the key frames are the
    // pictures with an IDR slice.
    static mp4_reader::movie expect_pictures(const std::vector<Picture> &pictures)
    {
        const Bytes image = read_file(kBuiltInFile);
        const mp4_reader::movie movie = expect_plays();
        const mp4_reader::track *const track = mp4_reader::find_track(movie, "vide");
        EXPECT_EQ(track->samples.size(), pictures.size());
        for (size_t i = 0; i < std::min(track->samples.size(), pictures.size()); i++) {
            Picture given = pictures[i];
            Picture recorded = nal_units_of(image, track->samples[i]);
            for (Picture *const units : {&given, &recorded}) {
                std::erase_if(*units, [](const Bytes &unit) {
                    return type_of(unit) == 7 || type_of(unit) == 8;
                });
            }
            EXPECT_EQ(recorded, given) << i;
            const bool is_idr = std::any_of(given.begin(), given.end(),
                                            [](const Bytes &unit) { return type_of(unit) == 5; });
            EXPECT_EQ(track->samples[i].sync, is_idr) << i;
        }
        return movie;
    }
};

TEST_F(Streams, TheSampleIsRecordedBitForBitAndPlays)
{
    const auto client = start_recording();
    send_programme(*client, 300);
    EXPECT_EQ(finish(*client), 1u);
    const mp4_reader::movie movie = expect_pictures(sample(300));
    EXPECT_EQ(stream_hash(kHashStart, read_file(kBuiltInFile)), kProgrammeFileHash);
    EXPECT_EQ(movie.creation_time, 3337607118u) << "5 October 2009, 17:05:18";
    const mp4_reader::track &video = *mp4_reader::find_track(movie, "vide");
    for (size_t i = 0; i < video.samples.size(); i++) { // the time base is 33333 us earlier
        const int64_t ms = (video_time_us(i) - video_time_us(0) + kFrameUs) / 1000 - 33;
        EXPECT_EQ(video.samples[i].time, 90u * static_cast<uint64_t>(ms)) << i;
    }
    const Picture first = sample(1)[0];
    EXPECT_EQ(video.avc.sps, Picture{first[0]});
    EXPECT_EQ(video.avc.pps, Picture{first[1]});
    const mp4_reader::track &audio = *mp4_reader::find_track(movie, "soun");
    EXPECT_EQ(audio.esds.specific_info, (Bytes{0x11, 0x90}));
    EXPECT_EQ(audio_hash(audio, 468), kProgrammeStreamHash) << "of the complete frames";
    if (has_ffmpeg()) {
        expect_audio_of_sample();
    }
    for (const LogLine &line : log()) {
        EXPECT_TRUE(line.priority < 6 || line.text.find("[channel:   2") != std::string::npos)
            << line.text;
    }
}

TEST_F(Streams, KeepEveryUnitOfOddAccessUnitsInOddBuffers)
{
    if (!has_ffmpeg()) {
        GTEST_SKIP() << "no ffmpeg to encode with";
    }
    std::vector<Picture> slices = encode("slices=4 -profile:v baseline");
    std::vector<Picture> sets = encode("cqm=jvt -profile:v high"); // larger than the scan buffer
    for (size_t i = 0; i < slices.size(); i += 20) {
        slices[i + 1].push_back({6, 5, 2, 1, 2, 0x80});  // an SEI unit after the slices
        sets[i].insert(sets[i].begin() + 1, sets[0][1]); // unused
    }
    ASSERT_GT(join_nal_units({sets[0][0], sets[0][1], sets[0][2]}).size(), 45u);
    for (const std::vector<Picture> &pictures : {slices, sets}) {
        send_all(*start_recording(), pictures);
        expect_pictures(pictures);
    }
    const auto client = start_recording();
    client->before_empty = [](OMX_BUFFERHEADERTYPE *header) { // the data ends with the buffer
        header->nOffset = header->nAllocLen - header->nFilledLen;
        std::copy_backward(header->pBuffer, header->pBuffer + header->nFilledLen,
                           header->pBuffer + header->nAllocLen);
    };
    send_all(*client, slices, true);
    expect_pictures(slices);
}

TEST_F(Streams, NeedNoAudio)
{
    send_all(*start_recording(), sample(60));
    const mp4_reader::movie movie = expect_pictures(sample(60));
    EXPECT_EQ(mp4_reader::find_track(movie, "soun")->samples.size(), 1u) << "silence";
}

TEST_F(Streams, GiveTheSameAudioWhateverThePcmBuffers)
{
    const Programme &programme = sample_programme();
    const uint8_t *const pcm = reinterpret_cast<const uint8_t *>(programme.pcm.data());
    const size_t total = 200 * kPcmBufferBytes;
    uint64_t first_hash = 0;
    for (const size_t bytes : {kPcmBufferBytes, size_t{64}, size_t{3000}, size_t{40960}, total}) {
        const auto client = start_recording();
        send_time_base(*client);
        client->send(TDMBREC_PORT_VIDEO, programme.access_units[0], video_time_us(0));
        for (size_t at = 0; at < total; at += bytes) {
            client->send(TDMBREC_PORT_AUDIO, {pcm + at, std::min(bytes, total - at)},
                         video_time_us(0) + static_cast<int64_t>(at) * 1000000 / 192000);
        }
        client->send(TDMBREC_PORT_VIDEO, programme.access_units[1], video_time_us(130));
        EXPECT_EQ(finish(*client), 1u);
        const mp4_reader::movie movie = expect_plays();
        const mp4_reader::track &track = *mp4_reader::find_track(movie, "soun");
        EXPECT_EQ(track.samples.size(), 200u) << bytes;
        first_hash = first_hash == 0 ? audio_hash(track, 200) : first_hash;
        EXPECT_EQ(audio_hash(track, 200), first_hash) << bytes;
        // One table entry for all frames, the rounded mean distance; the last frame has its own
        // time.
        EXPECT_NEAR(static_cast<double>(track.media_duration) / 48000, 199 * 1024 / 48000.0, 0.3)
            << bytes;
    }
}

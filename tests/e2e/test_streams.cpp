// Streams that are not the plain one: other access unit forms, broken clocks, odd PCM buffers.
#include "tests/support/judges.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"

#include <algorithm>
#include <filesystem>
#include <numeric>

class Streams : public RecorderTest {
  protected:
    // Encodes a moving test pattern. returns its access units in start-code form, delimiters
    // removed.
    static std::vector<Bytes> encode(const std::string &options)
    {
        const auto [status, stream] =
            run("ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=30:duration=2 "
                "-c:v libx264 -threads 1 -bf 0 -g 20 " +
                options + " -f h264 -");
        std::vector<Bytes> access_units;
        std::vector<Bytes> current;
        bool has_slice = false;
        for (const Bytes &unit : split_nal_units(stream)) {
            const int type = unit[0] & 0x1F;
            const bool is_slice = type == 1 || type == 5;
            const bool begins = is_slice ? (unit[1] & 0x80) != 0 : true;
            if (has_slice && begins) {
                access_units.push_back(join_nal_units(current));
                current.clear();
                has_slice = false;
            }
            has_slice = has_slice || is_slice;
            if (type != 6) { // the encoder's own remark would stand in front of the parameter sets
                current.push_back(unit);
            }
        }
        access_units.push_back(join_nal_units(current));
        return access_units;
    }

    static void send_all(IlClient &client, const std::vector<Bytes> &access_units)
    {
        send_time_base(client);
        for (size_t i = 0; i < access_units.size(); i++) {
            client.send(0, access_units[i], video_time_us(i));
        }
    }

    // The recording's slices are those of the stream, and each sample is in sync with it.
    static void expect_slices(const std::vector<Bytes> &access_units)
    {
        const Bytes image = read_file(BUILT_IN_FILE);
        const mp4_reader::movie movie = expect_plays();
        const mp4_reader::track *const track = mp4_reader::find_track(movie, "vide");
        ASSERT_NE(track, nullptr);
        ASSERT_EQ(track->samples.size(), access_units.size());
        for (size_t i = 0; i < access_units.size(); i++) {
            const auto is_parameter_set = [](const Bytes &unit) {
                return (unit[0] & 0x1F) == 7 || (unit[0] & 0x1F) == 8;
            };
            std::vector<Bytes> given = split_nal_units(access_units[i]);
            std::vector<Bytes> recorded = nal_units_of(image, track->samples[i]);
            const bool is_idr = std::any_of(given.begin(), given.end(), [](const Bytes &unit) {
                return (unit[0] & 0x1F) == 5;
            });
            std::erase_if(given, is_parameter_set);
            std::erase_if(recorded, is_parameter_set);
            ASSERT_EQ(recorded, given) << i;
            ASSERT_EQ(track->samples[i].sync, is_idr) << i;
        }
    }
};

TEST_F(Streams, KeepSeveralSlicesAndOtherUnitsOfAnAccessUnit)
{
    if (!has_ffmpeg()) {
        GTEST_SKIP() << "no ffmpeg to encode with";
    }
    std::vector<Bytes> access_units = encode("-profile:v baseline -x264-params slices=4:keyint=20");
    for (size_t i = 1; i < access_units.size(); i += 2) { // a supplemental unit behind the slices
        const Bytes sei{0, 0, 0, 1, 6, 5, 2, 1, 2, 0x80};
        access_units[i].insert(access_units[i].end(), sei.begin(), sei.end());
    }
    const auto client = start_recording();
    send_all(*client, access_units);
    EXPECT_EQ(finish(*client), 1u);
    expect_slices(access_units);
}

TEST_F(Streams, TakeStartCodesOfThreeBytesAlsoInAFullBuffer)
{
    if (!has_ffmpeg()) {
        GTEST_SKIP() << "no ffmpeg to encode with";
    }
    const std::vector<Bytes> access_units =
        encode("-profile:v baseline -x264-params slices=4:keyint=20");
    const auto client = start_recording();
    client->before_empty = [](OMX_BUFFERHEADERTYPE *header) { // no byte of room behind the data
        header->nOffset = header->nAllocLen - header->nFilledLen;
        std::copy_backward(header->pBuffer, header->pBuffer + header->nFilledLen,
                           header->pBuffer + header->nAllocLen);
    };
    send_time_base(*client);
    for (size_t i = 0; i < access_units.size(); i++) {
        Bytes data;
        for (const Bytes &unit : split_nal_units(access_units[i])) {
            const bool is_slice = (unit[0] & 0x1F) == 1 || (unit[0] & 0x1F) == 5;
            const Bytes code = is_slice && !data.empty() ? Bytes{0, 0, 1} : Bytes{0, 0, 0, 1};
            data.insert(data.end(), code.begin(), code.end());
            data.insert(data.end(), unit.begin(), unit.end());
        }
        client->send(0, data, video_time_us(i));
    }
    EXPECT_EQ(finish(*client), 1u);
    expect_slices(access_units);
}

TEST_F(Streams, RecordParameterSetsThatTheScanCannotHold)
{
    if (!has_ffmpeg()) {
        GTEST_SKIP() << "no ffmpeg to encode with";
    }
    std::vector<Bytes> access_units = encode("-profile:v high -x264-params keyint=20:cqm=jvt");
    for (Bytes &access_unit : access_units) { // a second, unused picture parameter set
        std::vector<Bytes> units = split_nal_units(access_unit);
        if (units.size() == 3) {
            Bytes second = units[1];
            units.insert(units.begin() + 1, second);
            access_unit = join_nal_units(units);
        }
    }
    ASSERT_GT(split_nal_units(access_units[0])[0].size() +
                  2 * split_nal_units(access_units[0])[1].size() + 12,
              45u);
    const auto client = start_recording();
    send_all(*client, access_units);
    EXPECT_EQ(finish(*client), 1u);
    expect_slices(access_units);
}

TEST_F(Streams, RecordParameterSetsThatComeInABufferOfTheirOwn)
{
    const Programme &programme = sample_programme();
    const auto client = start_recording();
    send_time_base(*client);
    for (size_t i = 0; i < 60; i++) {
        std::vector<Bytes> units = split_nal_units(programme.access_units[i]);
        const Bytes picture = units.back();
        units.pop_back();
        if (!units.empty()) {
            client->send(0, join_nal_units(units), video_time_us(i));
        }
        client->send(0, join_nal_units({picture}), video_time_us(i));
    }
    EXPECT_EQ(finish(*client), 1u);
    expect_slices({programme.access_units.begin(), programme.access_units.begin() + 60});
}

TEST_F(Streams, WithoutParameterSetsOpenNoFile)
{
    const Bytes picture =
        join_nal_units({split_nal_units(sample_programme().access_units[0]).back()});
    const Bytes half = join_nal_units({split_nal_units(sample_programme().access_units[0])[1],
                                       split_nal_units(sample_programme().access_units[0])[2]});
    const auto client = start_recording();
    for (size_t i = 0; i < 60; i++) {
        client->send(0, i % 2 == 0 ? picture : half, video_time_us(i));
        client->send(1, pcm_buffer(sample_programme(), i), video_time_us(i));
    }
    EXPECT_EQ(finish(*client), 0u) << "no file was ever opened";
    EXPECT_FALSE(std::filesystem::exists(BUILT_IN_FILE));
}

TEST_F(Streams, WithoutSoundGetOneFrameOfSilenceAndPlay)
{
    const auto client = start_recording();
    send_all(*client, sample_programme().access_units);
    EXPECT_EQ(finish(*client), 1u);
    const mp4_reader::movie movie = expect_plays();
    EXPECT_EQ(mp4_reader::find_track(movie, "vide")->samples.size(),
              sample_programme().access_units.size());
    EXPECT_EQ(mp4_reader::find_track(movie, "soun")->samples.size(), 1u);
}

TEST_F(Streams, DropTheAudioBeforeTheFirstPictureAndKeepTheRest)
{
    const Programme &programme = sample_programme();
    const auto client = start_recording();
    for (size_t i = 0; i < 10; i++) {
        client->send(1, pcm_buffer(programme, i), audio_time_us(i));
    }
    const int64_t begin_us = audio_time_us(10);
    client->send(0, Bytes{0, 0, 0, 1, 9, 0xF0}, begin_us - FRAME_US);
    client->send(1, pcm_buffer(programme, 9), begin_us - 1); // before the file's first picture
    for (size_t i = 0; i < 60; i++) {
        client->send(0, programme.access_units[i], begin_us + video_time_us(i) - video_time_us(0));
        client->send(1, pcm_buffer(programme, 10 + i), audio_time_us(10 + i));
    }
    EXPECT_EQ(finish(*client), 1u);
    const mp4_reader::movie movie = expect_plays();
    EXPECT_EQ(mp4_reader::find_track(movie, "soun")->samples.size(), 60u);
    EXPECT_EQ(mp4_reader::find_track(movie, "vide")->samples.size(), 60u);
}

TEST_F(Streams, ContinueOneFrameLaterWhenClocksJumpBackAndKeepGaps)
{
    const Programme &programme = sample_programme();
    const auto client = start_recording();
    std::vector<int64_t> expected_ms;
    int64_t last_ms = 33 - 33;
    send_time_base(*client);
    // Video jumps back after 60 pictures, then both do, then three seconds are missing.
    const int64_t frame = 40000;
    int64_t ts_us = 5000000;
    client->send(0, programme.access_units[0], ts_us);
    const int64_t first_ms = (ts_us - (video_time_us(0) - FRAME_US)) / 1000;
    expected_ms.push_back(0);
    for (size_t i = 1; i < 240; i++) {
        ts_us += frame;
        int64_t step_ms = frame / 1000;
        if (i == 60 || i == 120) {
            ts_us -= 1500000;
            step_ms = first_ms; // the first distance of this recording
        }
        if (i == 180) {
            ts_us += 3000000;
            step_ms += 3000;
        }
        last_ms += step_ms;
        expected_ms.push_back(last_ms);
        client->send(0, programme.access_units[i], ts_us);
        client->send(1, pcm_buffer(programme, i), 6000000 + ts_us);
    }
    EXPECT_EQ(finish(*client), 1u);
    const mp4_reader::movie movie = expect_plays();
    const mp4_reader::track *const video = mp4_reader::find_track(movie, "vide");
    ASSERT_EQ(video->samples.size(), 240u);
    for (size_t i = 0; i < 240; i++) {
        ASSERT_EQ(video->samples[i].time, 90u * static_cast<uint64_t>(expected_ms[i])) << i;
    }
    EXPECT_EQ(mp4_reader::find_track(movie, "soun")->samples.size(), 239u);
    EXPECT_TRUE(has_logged("VIDEO_ROLLBACK_COUNT : 2"));
    EXPECT_TRUE(has_logged("AUDIO_ROLLBACK_COUNT : 2"));
}

TEST_F(Streams, GiveTheSameSoundWhateverThePcmBuffers)
{
    const Programme &programme = sample_programme();
    const uint8_t *const pcm = reinterpret_cast<const uint8_t *>(programme.pcm.data());
    const size_t total = 200 * PCM_BUFFER_BYTES;
    std::vector<Bytes> sounds;
    for (const size_t bytes : {PCM_BUFFER_BYTES, size_t{64}, size_t{1000}, size_t{3000},
                               size_t{10000}, size_t{40960}, total}) {
        const auto client = start_recording();
        send_time_base(*client);
        client->send(0, programme.access_units[0], video_time_us(0));
        for (size_t at = 0; at < total; at += bytes) {
            const size_t length = std::min(bytes, total - at);
            client->send(1, {pcm + at, length},
                         video_time_us(0) + static_cast<int64_t>(at) * 1000000 / 192000);
        }
        client->send(0, programme.access_units[1], video_time_us(130));
        EXPECT_EQ(finish(*client), 1u);
        const Bytes image = read_file(BUILT_IN_FILE);
        const mp4_reader::movie movie = expect_plays();
        const mp4_reader::track *const track = mp4_reader::find_track(movie, "soun");
        EXPECT_EQ(track->samples.size(), 200u) << bytes;
        Bytes sound;
        for (const mp4_reader::sample &sample : track->samples) {
            sound.insert(sound.end(), image.begin() + static_cast<ptrdiff_t>(sample.offset),
                         image.begin() + static_cast<ptrdiff_t>(sample.offset + sample.size));
        }
        sounds.push_back(sound);
        // One entry for all: the mean distance, rounded; the last frame stands at its own time.
        EXPECT_NEAR(static_cast<double>(track->media_duration) / 48000, 199 * 1024 / 48000.0, 0.3)
            << bytes;
    }
    for (const Bytes &sound : sounds) {
        EXPECT_EQ(sound, sounds[0]);
    }
}

// Programmes recorded through the OpenMAX IL interface, bit for bit.
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"
#include "tests/support/stream_hash.h"

#include <algorithm>

class Streams : public RecorderTest {
  protected:
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
};

TEST_F(Streams, TheSampleIsRecordedBitForBitAndPlays)
{
    const auto client = start_recording();
    send_programme(*client, 300);
    EXPECT_EQ(finish(*client), 1u);
    const mp4_reader::movie movie = expect_plays();
    EXPECT_EQ(stream_hash(kHashStart, read_file(kBuiltInFile)), kProgrammeFileHash);
    EXPECT_EQ(movie.creation_time, 3337607118u) << "5 October 2009, 17:05:18";
    EXPECT_EQ(audio_hash(*mp4_reader::find_track(movie, "soun"), 468), kProgrammeStreamHash)
        << "of the complete frames";
    for (const LogLine &line : log()) {
        EXPECT_TRUE(line.priority < 6 || line.text.find("[channel:   2") != std::string::npos)
            << line.text;
    }
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

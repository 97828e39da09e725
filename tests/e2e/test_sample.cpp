// The sample programme, recorded whole through the OpenMAX IL interface.
#include "tests/support/allocation_counter.h"
#include "tests/support/judges.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"

#include <cmath>
#include <cstring>
#include <filesystem>

class Sample : public RecorderTest {};

static uint32_t time_ms(int64_t ts_us) // on the file's time line
{
    const int64_t base_us = video_time_us(0) - FRAME_US;
    return static_cast<uint32_t>((ts_us - base_us) / 1000 - (video_time_us(0) - base_us) / 1000);
}

// Every picture as it was given, without the parameter sets in front, at its time.
static void expect_video(const Bytes &image, const mp4_reader::track &track)
{
    const Programme &programme = sample_programme();
    ASSERT_EQ(track.samples.size(), programme.access_units.size());
    for (size_t i = 0; i < track.samples.size(); i++) {
        const mp4_reader::sample &sample = track.samples[i];
        const std::vector<Bytes> units = split_nal_units(programme.access_units[i]);
        Bytes expected;
        const uint32_t size = static_cast<uint32_t>(units.back().size());
        for (int shift = 24; shift >= 0; shift -= 8) {
            expected.push_back(static_cast<uint8_t>(size >> shift));
        }
        expected.insert(expected.end(), units.back().begin(), units.back().end());
        ASSERT_EQ(sample.size, expected.size()) << i;
        ASSERT_EQ(memcmp(image.data() + sample.offset, expected.data(), expected.size()), 0) << i;
        ASSERT_EQ(sample.sync, units.size() > 1) << i;
        ASSERT_EQ(sample.time, 90u * time_ms(video_time_us(i))) << i;
    }
    const std::vector<Bytes> first = split_nal_units(programme.access_units[0]);
    EXPECT_EQ(track.avc.sps, std::vector<Bytes>{first[0]});
    EXPECT_EQ(track.avc.pps, std::vector<Bytes>{first[1]});
}

// Signal to noise (dB) of `decoded` against the programme, `delay` sample pairs later. The
// encoder's filterbank turns the polarity.
static double snr_db(const std::vector<int16_t> &decoded, size_t delay)
{
    const std::vector<int16_t> &pcm = sample_programme().pcm;
    double signal = 0;
    double noise = 0;
    const size_t begin = 2 * 4096; // behind the encoder's start
    for (size_t i = begin; i + 2 * delay < decoded.size() && i < pcm.size(); i++) {
        const double difference = decoded[i + 2 * delay] + pcm[i];
        signal += static_cast<double>(pcm[i]) * pcm[i];
        noise += difference * difference;
    }
    return 10 * std::log10(signal / noise);
}

static void expect_audio(const mp4_reader::track &track)
{
    EXPECT_EQ(track.esds.specific_info, (std::vector<uint8_t>{0x11, 0x90}));
    EXPECT_EQ(track.esds.object_type, 0x40u);
    // A half frame at the end stays in the queue.
    const size_t frames = sample_programme().pcm.size() / 2 / 1024;
    EXPECT_GE(track.samples.size(), frames);
    if (!has_ffmpeg()) {
        GTEST_SKIP() << "no ffmpeg to decode the audio";
    }
    const Bytes raw =
        run(std::string("ffmpeg -nostdin -v error -i ") + BUILT_IN_FILE + " -map 0:a -f s16le -")
            .second;
    std::vector<int16_t> decoded(raw.size() / 2);
    memcpy(decoded.data(), raw.data(), decoded.size() * 2);
    // The transform's overlap delays the sound by one frame.
    EXPECT_GT(snr_db(decoded, 1024), 10);
    EXPECT_LT(snr_db(decoded, 1023), snr_db(decoded, 1024));
    EXPECT_LT(snr_db(decoded, 1025), snr_db(decoded, 1024));
}

static size_t open_files()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        count++;
    }
    return count;
}

TEST_F(Sample, IsRecordedBitForBitAndPlays)
{
    const size_t files_before = open_files();
    {
        const auto client = start_recording();
        send_programme(*client, sample_programme().access_units.size());
        EXPECT_EQ(finish(*client), 1u);
        EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 1u);
    }
    EXPECT_EQ(open_files(), files_before);
    const Bytes image = read_file(BUILT_IN_FILE);
    const mp4_reader::movie movie = expect_plays();
    ASSERT_EQ(movie.tracks.size(), 2u);
    EXPECT_EQ(movie.creation_time, 3337607118u) << "5 October 2009, 17:05:18";
    expect_video(image, *mp4_reader::find_track(movie, "vide"));
    expect_audio(*mp4_reader::find_track(movie, "soun"));
    for (const LogLine &line : log()) {
        EXPECT_TRUE(line.priority < 6 || line.text.find("[channel:   2") != std::string::npos)
            << line.text;
    }
}

TEST_F(Sample, AllocatesNothingPerFrame)
{
    if (!can_count_allocations()) {
        GTEST_SKIP() << "a sanitizer replaces the allocator";
    }
    const auto client = start_recording();
    const Programme &programme = sample_programme();
    const Bytes pcm = pcm_buffer(programme, 40);
    send_programme(*client, 40);
    const std::vector<LogLine> before = log(); // the test itself allocates for a log line
    uint64_t in_client = 0;
    uint64_t total = 0;
    for (size_t i = 40; i < 240; i++) {
        const uint64_t start = allocation_count();
        OMX_BUFFERHEADERTYPE *const video =
            client->post(0, programme.access_units[i], video_time_us(i));
        OMX_BUFFERHEADERTYPE *const audio = client->post(1, pcm, video_time_us(i));
        client->wait_until_back(video);
        client->wait_until_back(audio);
        total += allocation_count() - start;
        in_client += 2; // post() notes the buffer in a vector that may grow
    }
    EXPECT_LE(total, in_client) << "in 200 pictures and 200 AAC frames";
    EXPECT_EQ(log().size(), before.size());
    finish(*client);
}

// Recordings that come through the frame FIFOs and the writer threads.
#include "client/mp4_reader.h"
#include "component/frame_fifo.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/wrapped_calls.h"

#include <chrono>
#include <csignal>
#include <random>
#include <sys/resource.h>
#include <thread>

struct Frame {
    Bytes data;
    int64_t time_ms;
    bool is_key;
};

class WriterThreads : public ComponentTest {
  protected:
    void start_writers(IlClient &client)
    {
        omx_tdmbrec_component_PrivateType *const record = record_of(client);
        for (const uint32_t fifo : {QVR_FIFO_AUDIO, QVR_FIFO_VIDEO}) {
            QVR_FIFO_InitBuffer(fifo, static_cast<uint32_t>(storage_[fifo].size()),
                                storage_[fifo].data());
        }
        ASSERT_EQ(pthread_create(&record->hAudioWriterThread, nullptr, omx_tdmbrec_audio_thread,
                                 client.handle()),
                  0);
        ASSERT_EQ(pthread_create(&record->hVideoWriterThread, nullptr, omx_tdmbrec_video_thread,
                                 client.handle()),
                  0);
    }
    // Parameter sets in a buffer of their own.
    static void open_file(IlClient &client)
    {
        std::vector<Bytes> units = split_nal_units(sample_programme().access_units[0]);
        units.pop_back();
        client.send(0, join_nal_units(units), 1000000);
    }
    // Gives up when the recording has ended.
    static void feed(IlClient &client, uint32_t fifo, const Frame &frame)
    {
        const int32_t length = static_cast<int32_t>(frame.data.size());
        while (QVR_FIFO_GetOneFifo5(fifo, length, frame.time_ms, frame.is_key ? 1 : 0) == 0) {
            if (client.count(EVENT_END_OF_RECORDING) > 0) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(QVR_FIFO_WriteFifo5(fifo, frame.data.data(), length), length);
        EXPECT_EQ(QVR_FIFO_Push(fifo), 1);
    }
    static void wait_until_written(uint32_t fifo)
    {
        while (QVR_FIFO_GetLength(fifo) > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    Bytes storage_[2] = {Bytes(400000), Bytes(400000)};
};

static std::vector<Frame> video_frames()
{
    std::vector<Frame> frames;
    for (const Bytes &access_unit : sample_programme().access_units) {
        const std::vector<Bytes> units = split_nal_units(access_unit);
        const size_t size = units.back().size();
        Bytes data{0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
        data.insert(data.end(), units.back().begin(), units.back().end());
        const int64_t time_ms = static_cast<int64_t>(frames.size()) * 1000 / 30;
        frames.push_back({data, (int64_t{7} << 32) + time_ms, units.size() > 1});
    }
    return frames;
}

static std::vector<Frame> audio_frames()
{
    std::mt19937 random(5);
    std::vector<Frame> frames(470);
    for (Frame &frame : frames) {
        frame = {Bytes(200 + random() % 400), 0, true};
        for (uint8_t &byte : frame.data) {
            byte = static_cast<uint8_t>(random());
        }
    }
    return frames;
}

static void expect_frames(const Bytes &image, const mp4_reader::track &track,
                          const std::vector<Frame> &frames)
{
    ASSERT_EQ(track.samples.size(), frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
        const mp4_reader::sample &sample = track.samples[i];
        const uint8_t *const data = image.data() + sample.offset;
        ASSERT_EQ(Bytes(data, data + sample.size), frames[i].data) << i;
        if (track.handler == "vide") {
            ASSERT_EQ(sample.sync, frames[i].is_key) << i;
            ASSERT_EQ(sample.time, 90u * static_cast<uint32_t>(frames[i].time_ms)) << i;
        }
    }
}

TEST_F(WriterThreads, WriteAWholeProgrammeBitForBit)
{
    const std::vector<Frame> video = video_frames();
    const std::vector<Frame> audio = audio_frames();
    const auto client = make_recorder();
    start_writers(*client);
    const auto feed_all = [&client](uint32_t fifo, const std::vector<Frame> &frames) {
        for (const Frame &frame : frames) {
            feed(*client, fifo, frame);
        }
    };
    std::thread video_feeder(feed_all, QVR_FIFO_VIDEO, std::cref(video));
    std::thread audio_feeder(feed_all, QVR_FIFO_AUDIO, std::cref(audio));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    open_file(*client); // until now, the frames have waited
    video_feeder.join();
    audio_feeder.join();
    wait_until_written(QVR_FIFO_VIDEO);
    wait_until_written(QVR_FIFO_AUDIO);
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_EQ(record_of(*client)->hVideoWriterThread, pthread_t{}) << "it has been joined";
    client->to_loaded();
    const Bytes image = read_file(RECORDING);
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    EXPECT_EQ(movie.error, "");
    ASSERT_EQ(movie.tracks.size(), 2u);
    expect_frames(image, *mp4_reader::find_track(movie, "vide"), video);
    expect_frames(image, *mp4_reader::find_track(movie, "soun"), audio);
}

static void limit_file_size(rlim_t bytes)
{
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST_F(WriterThreads, EndTheRecordingWithReason5WhenAWriteFails)
{
    signal(SIGXFSZ, SIG_IGN);
    for (const uint32_t fifo : {QVR_FIFO_AUDIO, QVR_FIFO_VIDEO}) {
        const std::string error = fifo == QVR_FIFO_VIDEO ? "[omx_tdmbrec_video_thread:2221] "
                                                         : "[omx_tdmbrec_audio_thread:2152] ";
        on_log = [&](const LogLine &line) { // there is room again for the end of the file
            if (line.text.find(error + "-270511 [-270511] Error:can't write file") == 0) {
                limit_file_size(RLIM_INFINITY);
            }
        };
        const auto client = make_recorder();
        start_writers(*client);
        open_file(*client);
        feed(*client, QVR_FIFO_VIDEO, video_frames()[0]);
        limit_file_size(3000000);
        while (client->count(EVENT_END_OF_RECORDING) == 0) {
            feed(*client, fifo, {Bytes(100000, 1), 1000, true});
        }
        EXPECT_EQ(client->wait_for_end(), 5u);
        client->to_loaded();
        EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 1u);
        EXPECT_EQ(mp4_reader::read_movie(read_file(RECORDING)).error, "");
    }
    on_log = nullptr;
}

TEST_F(WriterThreads, EndTheRecordingOnceWithReason6PastTheLargestFile)
{
    for (const int threads_refused : {0, 1}) { // with a stop thread, and without
        const auto client = make_recorder();
        start_writers(*client);
        open_file(*client);
        set_file_estimate(1800000000);
        for (const uint32_t fifo : {QVR_FIFO_AUDIO, QVR_FIFO_VIDEO}) {
            feed(*client, fifo, {Bytes(100, 1), 0, true});
            wait_until_written(fifo);
        }
        EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 0u) << "not past it";
        set_file_estimate(1800000001);
        refuse_threads(threads_refused);
        for (const uint32_t fifo : {QVR_FIFO_AUDIO, QVR_FIFO_VIDEO}) {
            feed(*client, fifo, {Bytes(100, 1), 33, true});
        }
        EXPECT_EQ(client->wait_for_end(), 6u);
        client->to_loaded();
        EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 1u);
        EXPECT_TRUE(has_logged("_thread:2152] 0 [0] Error: 0x") ||
                    has_logged("_thread:2221] 0 [0] Error: 0x"));
    }
}

// Recordings through the frame FIFOs and the writer threads.
#include "component/frame_fifo.h"
#include "mp4read/mp4_reader.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <chrono>
#include <thread>

struct Frame {
    Bytes data;
    int64_t time_ms;
    bool is_key;
};

class WriterThreads : public ComponentTest {
  protected:
    static void start_writer(IlClient &client, uint32_t fifo, pthread_t *thread)
    {
        ASSERT_EQ(pthread_create(thread, nullptr,
                                 fifo == QVR_FIFO_VIDEO ? omx_tdmbrec_video_thread
                                                        : omx_tdmbrec_audio_thread,
                                 client.handle()),
                  0);
    }
    void empty_fifos()
    {
        for (const uint32_t fifo : {QVR_FIFO_AUDIO, QVR_FIFO_VIDEO}) {
            QVR_FIFO_InitBuffer(fifo, static_cast<uint32_t>(storage_[fifo].size()),
                                storage_[fifo].data());
        }
    }
    void start_writers(IlClient &client)
    {
        empty_fifos();
        start_writer(client, QVR_FIFO_AUDIO, &record_of(client)->hAudioWriterThread);
        start_writer(client, QVR_FIFO_VIDEO, &record_of(client)->hVideoWriterThread);
    }
    // Parameter sets in a buffer of their own.
    static void open_file(IlClient &client)
    {
        std::vector<Bytes> units = split_nal_units(sample_programme().access_units[0]);
        units.pop_back();
        client.send(0, join_nal_units(units), 1000000);
    }
    // Waits for room unless the recording has ended.
    static void feed(IlClient &client, uint32_t fifo, const Frame &frame)
    {
        const int32_t length = static_cast<int32_t>(frame.data.size());
        while (QVR_FIFO_GetOneFifo5(fifo, length, frame.time_ms, frame.is_key ? 1 : 0) == 0) {
            if (client.count(TDMBREC_EVENT_END_OF_RECORDING) > 0) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(QVR_FIFO_WriteFifo5(fifo, frame.data.data(), length), length);
        EXPECT_EQ(QVR_FIFO_Push(fifo), 1);
    }
    static void wait_until_written()
    {
        while (QVR_FIFO_GetLength(QVR_FIFO_AUDIO) + QVR_FIFO_GetLength(QVR_FIFO_VIDEO) > 0) {
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
        const Bytes &picture = units.back();
        Bytes data(4 + picture.size());
        data[2] = static_cast<uint8_t>(picture.size() >> 8);
        data[3] = static_cast<uint8_t>(picture.size());
        std::copy(picture.begin(), picture.end(), data.begin() + 4);
        const int64_t time_ms = static_cast<int64_t>(frames.size()) * 1000 / 30;
        frames.push_back({data, (int64_t{7} << 32) + time_ms, units.size() > 1});
    }
    return frames;
}

static std::vector<Frame> audio_frames()
{
    std::vector<Frame> frames;
    for (size_t i = 0; i < 470; i++) {
        frames.push_back({Bytes(200 + i % 400, static_cast<uint8_t>(i)), 0, true});
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
    open_file(*client); // the frames wait for it
    video_feeder.join();
    audio_feeder.join();
    wait_until_written();
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_EQ(record_of(*client)->hVideoWriterThread, pthread_t{}) << "it has been joined";
    client->to_loaded();
    const Bytes image = read_file(kRecording);
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    EXPECT_EQ(first_fault(movie), "");
    ASSERT_EQ(movie.tracks.size(), 2u);
    expect_frames(image, *mp4_reader::find_track(movie, "vide"), video);
    expect_frames(image, *mp4_reader::find_track(movie, "soun"), audio);
}

TEST_F(WriterThreads, EndTheRecordingOnceAfterAFailedWriteAndPastTheLargestFile)
{
    for (const int round : {0, 1, 2, 3}) {
        const bool fails = round % 2 == 0;
        const uint32_t fifo = fails ? QVR_FIFO_VIDEO : QVR_FIFO_AUDIO;
        const Frame frame{Bytes(100, 1), 0, true};
        const auto client = make_recorder();
        start_writers(*client);
        open_file(*client);
        set_put_result(0, TDMBREC_FILE_LIMIT_BYTES); // still within the limit
        feed(*client, QVR_FIFO_AUDIO, frame);
        feed(*client, QVR_FIFO_VIDEO, frame);
        wait_until_written();
        EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 0u);
        set_put_result(fails ? -7 : 0, 1800000001);
        if (round >= 2) { // both writers fail, and one of them must run the stop procedure
            refuse_threads(1);
            feed(*client, 1 - fifo, frame);
        }
        feed(*client, fifo, frame);
        EXPECT_EQ(client->wait_for_end(), fails ? 5u : 6u);
        EXPECT_TRUE(has_logged(fails ? "[omx_tdmbrec_video_thread:2221] -7 [0] Error: 0x"
                                     : "[omx_tdmbrec_audio_thread:2152] 0 [0] Error: 0x"));
        client->to_loaded();
        EXPECT_EQ(record_of(*client)->stMuxError.m_pszMessage, nullptr)
            << "it belonged to the muxer's context";
        EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 1u);
        EXPECT_EQ(first_fault(mp4_reader::read_movie(read_file(kRecording))), "");
        reset_wrapped_calls();
    }
}

TEST_F(WriterThreads, MayOutliveTheRecordingOfAProgramThatJoinsThemItself)
{
    for (int round = 0; round < 20; round++) {
        const auto client = make_recorder();
        empty_fifos();
        open_file(*client);
        pthread_t threads[2];
        start_writer(*client, QVR_FIFO_AUDIO, &threads[0]);
        start_writer(*client, QVR_FIFO_VIDEO, &threads[1]);
        const bool fails = round % 2 == 0;
        for (int i = 0; client->count(TDMBREC_EVENT_END_OF_RECORDING) == 0; i++) {
            feed(*client, QVR_FIFO_AUDIO, {Bytes(100, 1), i, true});
            feed(*client, QVR_FIFO_VIDEO, {Bytes(100, 1), i, true});
            if (i != 300) {
                continue;
            }
            while (QVR_FIFO_GetLength(QVR_FIFO_VIDEO) > 200) { // until the writers are at work
                std::this_thread::yield();
            }
            if (fails) {
                set_put_result(-7, 0);
            } else {
                client->stop();
            }
        }
        EXPECT_EQ(client->wait_for_end(), fails ? 5u : 1u);
        for (const pthread_t thread : threads) {
            EXPECT_EQ(pthread_join(thread, nullptr), 0);
        }
        client->destroy();
        EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 1u);
        EXPECT_EQ(first_fault(mp4_reader::read_movie(read_file(kRecording))), "");
        reset_wrapped_calls();
    }
}

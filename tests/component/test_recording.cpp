// The life of a recording and its ends, at the component's own interface.
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/programme_player.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

class Recording : public ComponentTest {};

TEST_F(Recording, StopsWithTheReasonOfItsPathOrStorage)
{
    const auto client = make_client();
    client->to_executing();
    const auto end_of = [&](const std::string &path) {
        client->set_path(path);
        EXPECT_EQ(client->start(), OMX_ErrorNone);
        send_programme(*client, 3);
        return client->wait_for_end().value_or(99);
    };
    EXPECT_EQ(end_of("/mnt/sdcard/tflash/x.mp4"), 0u) << "no card";
    EXPECT_EQ(end_of("/media/x.mp4"), 0u);
    EXPECT_EQ(end_of(""), 0u);
    EXPECT_EQ(end_of("/mnt/sdcard/none/x.mp4"), 4u);
    EXPECT_TRUE(has_logged("[Open:-4] Error:can't open file<mux_open\n"));
    EXPECT_TRUE(has_logged("In QVR_FILE_fopen : /mnt/sdcard/none/x.mp4 open error\n"));
    EXPECT_TRUE(has_logged("In QVR_FILE_fopen : File Handle[0x00000000]\n"));
    host_fail_call(HOST_CALL_DFGET, 0, 1);
    EXPECT_EQ(end_of(RECORDING), 0u);
    host_set_storage(0, 8000000, 51200);
    EXPECT_EQ(end_of(RECORDING), 0u) << "full, but no file was ever opened";
    EXPECT_TRUE(has_logged("             8000000               51200\n"));
    host_fail_call(HOST_CALL_DFOPEN, 0, 1);
    EXPECT_EQ(end_of(RECORDING), 0u) << "it never began";
    host_set_storage(0, 8000000, 51201);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    send_programme(*client, 3);
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 7u) << "room enough";
    host_set_storage(0, 8000000, 51200);
    send_programme(*client, 1, 3);
    EXPECT_EQ(client->wait_for_end(), 2u);
    client->to_loaded();
}

TEST_F(Recording, RunsTheStopProcedureInPlaceWhereNoThreadCanBeCreated)
{
    const auto client = make_recorder();
    send_programme(*client, 5);
    refuse_threads(1);
    EXPECT_EQ(client->stop(), OMX_ErrorNone);
    EXPECT_EQ(client->wait_for_end(0), 1u) << "on the client's thread";
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    send_programme(*client, 5);
    refuse_threads(1);
    host_set_storage(0, 1, 1);
    send_programme(*client, 1, 5);
    EXPECT_EQ(client->wait_for_end(), 2u) << "on the buffer thread";
    refuse_threads(1);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    client->destroy();
    EXPECT_EQ(client->wait_for_end(0), 0u) << "no file was opened";
}

TEST_F(Recording, CanBeStartedAndStoppedAtWillFromTheEventOfItsEnd)
{
    const auto client = make_recorder();
    std::atomic<int> rounds = 0;
    std::promise<void> handled;
    client->on_event = [&](const IlEvent &event) {
        if (event.event == EVENT_END_OF_RECORDING && rounds++ == 0) {
            EXPECT_EQ(client->start(), OMX_ErrorNone);
            (void)client->post(0, sample_programme().access_units[0], video_time_us(0));
            EXPECT_EQ(client->stop(), OMX_ErrorNone);
            EXPECT_EQ(client->start(), OMX_ErrorNone);
            handled.set_value();
        }
    };
    client->stop();
    EXPECT_EQ(client->start(), OMX_ErrorNone) << "from two threads at once";
    handled.get_future().wait();
    client->destroy();
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 3u);
}

TEST_F(Recording, IsOverWhenTheComponentGoesAlsoForAClientThatStartsAtEveryEnd)
{
    const auto client = make_recorder();
    client->on_event = [&](const IlEvent &event) {
        if (event.event == EVENT_END_OF_RECORDING) {
            (void)client->start();
        }
    };
    client->stop();
    client->destroy();
    EXPECT_LE(client->count(EVENT_END_OF_RECORDING), 2u);
}

TEST_F(Recording, OutlivesAClientThatStartsAgainAtEveryEndWithoutStorage)
{
    const auto client = make_client();
    int ends = 0;
    client->on_event = [&](const IlEvent &event) {
        if (event.event == EVENT_END_OF_RECORDING && ++ends < 100000) {
            EXPECT_EQ(client->start(), OMX_ErrorNone);
        }
    };
    host_fail_call(HOST_CALL_DFOPEN, 0, UINT32_MAX);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 100000u);
}

TEST_F(Recording, EndsForAnotherComponentThatGoesWithinTheEvent)
{
    const auto client = make_recorder();
    const auto other = make_client();
    std::vector<const IlClient *> ended;
    client->on_event = [&](const IlEvent &event) {
        if (event.event == EVENT_END_OF_RECORDING && ended.empty()) {
            host_fail_call(HOST_CALL_DFOPEN, 0, 2); // both starts end at once
            EXPECT_EQ(other->start(), OMX_ErrorNone);
            other->destroy();
        }
        ended.push_back(client.get());
    };
    other->on_event = [&](const IlEvent &) {
        EXPECT_EQ(client->start(), OMX_ErrorNone);
        ended.push_back(other.get());
    };
    client->stop();
    EXPECT_TRUE(client->wait_for_end() && client->wait_for_end());
    client->destroy();
    EXPECT_EQ(ended, (std::vector<const IlClient *>{other.get(), client.get(), client.get()}))
        << "its own next end comes after the event";
}

TEST_F(Recording, IsNeitherDisturbedNorJoinedByAnotherStart)
{
    const auto client = make_recorder();
    send_programme(*client, 5);
    client->set_path("/mnt/sdcard/other.mp4");
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    EXPECT_TRUE(has_logged("Start while recording: ignored"));
    const auto other = make_client();
    EXPECT_EQ(other->start(), 0x80001000u);
    send_programme(*client, 5, 5);
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_TRUE(std::filesystem::exists(RECORDING));
    EXPECT_FALSE(std::filesystem::exists("/mnt/sdcard/other.mp4"));
    EXPECT_EQ(other->start(), OMX_ErrorNone);
    client->to_loaded();
}

TEST_F(Recording, DoesNotStartWithoutMemoryAndSurvivesWithoutItsBlocks)
{
    const auto client = make_client();
    client->to_executing();
    client->set_path(RECORDING);
    for (uint32_t n = 0; n < 5; n++) {
        host_fail_call(HOST_CALL_MALLOC, n, 1);
        if (n < 3) {
            EXPECT_EQ(client->start(), OMX_ErrorInsufficientResources);
            EXPECT_EQ(host_live_storage_handles(), 0);
            continue;
        }
        EXPECT_EQ(client->start(), OMX_ErrorNone); // without the cache block, the close memory
        send_programme(*client, 35);
        client->stop();
        EXPECT_EQ(client->wait_for_end(), 1u);
        EXPECT_GT(std::filesystem::file_size(RECORDING), 40000u);
    }
    client->to_loaded();
}

TEST_F(Recording, KeepsTheAudioBufferWhileTheEncoderCannotBeOpened)
{
    const auto client = make_client();
    record_of(*client)->uiSampleRate = 50000;
    client->start_recording(RECORDING);
    client->send(0, sample_programme().access_units[0], 1000000);
    OMX_BUFFERHEADERTYPE *const audio = client->post(1, pcm_buffer(sample_programme(), 0), 1000000);
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; i++) { // each of these wakes the loop
        client->send(0, sample_programme().access_units[1], 1033333);
        EXPECT_FALSE(client->wait_until_back(audio, 1));
    }
    const std::vector<LogLine> lines = log();
    const auto tries = std::count_if(lines.begin(), lines.end(), [](const LogLine &line) {
        return line.text == "Audio Dec init error.";
    });
    EXPECT_GE(tries, 3);
    const auto seconds = std::chrono::steady_clock::now() - begun;
    EXPECT_LE(tries, 12 + seconds / std::chrono::seconds(1)) << "they come ever more seldom";
    client->stop();
    EXPECT_TRUE(client->wait_for_end().has_value());
    EXPECT_TRUE(client->wait_until_back(audio)) << "consumed once nothing is recorded";
    client->to_loaded();
}

TEST_F(Recording, TrustsNoLengthOfTheClient)
{
    const auto client = make_recorder();
    send_programme(*client, 2);
    const OMX_U32 places[][2] = {
        {0, 65},         {65, 1}, {1, 64}, {UINT32_MAX, 2},
        {2, UINT32_MAX}, {60, 4}}; // the last one is sound, but four zeros say nothing
    for (const OMX_U32 port : {0u, 1u}) {
        for (const auto &[offset, length] : places) {
            Bytes memory(64);
            OMX_BUFFERHEADERTYPE header = {};
            header.pBuffer = memory.data();
            header.nAllocLen = 64;
            header.nOffset = offset;
            header.nFilledLen = length;
            header.nTimeStamp = 2000000;
            record_of(*client)->ucBufferPort = static_cast<uint8_t>(port);
            omx_tdmbrec_component_BufferMgmtCallback(client->handle(), &header);
            EXPECT_EQ(header.nFilledLen, 0u) << offset << " + " << length;
        }
    }
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    client->to_loaded();
}

TEST_F(Recording, SurvivesStopsStartsAndStateChangesFromAnywhere)
{
    const auto client = make_recorder();
    std::atomic<bool> is_over = false;
    std::thread meddler([&] {
        for (int i = 0; i < 60; i++) {
            client->stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 4));
            EXPECT_EQ(client->start(), OMX_ErrorNone);
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 7));
        }
        is_over = true;
    });
    for (size_t round = 1; !is_over; round++) {
        send_programme(*client, 8);
        if (round % 8 == 0) {
            client->set_state(OMX_StatePause);
            client->set_state(OMX_StateExecuting);
        }
    }
    meddler.join();
    client->destroy();
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 61u) << "each recording ended once";
}

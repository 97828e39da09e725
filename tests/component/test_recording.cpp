// The life of a recording and its ends, at the component's own interface.
#include "component/process_state.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/programme_player.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

class Recording : public ComponentTest {};

TEST_F(Recording, IsWrittenAndReportedOnce)
{
    const auto client = make_recorder();
    send_programme(*client, 40);
    EXPECT_EQ(client->stop(), OMX_ErrorNone);
    EXPECT_EQ(client->stop(), OMX_ErrorNone);
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 1u);
    EXPECT_GT(std::filesystem::file_size(RECORDING), 50000u);
    EXPECT_FALSE(std::filesystem::exists("/mnt/sdcard/v_stco.tmp"));
    client->to_loaded();
}

TEST_F(Recording, StopsWithReason0WhereTheStorageIsNotUsable)
{
    for (const std::string path : {"/mnt/sdcard/tflash/x.mp4", "/media/x.mp4", ""}) {
        const auto client = make_recorder(path);
        client->send(1, pcm_buffer(sample_programme(), 0), 1000000);
        EXPECT_EQ(client->wait_for_end(), 0u) << path;
        EXPECT_EQ(global_uc_stop_type, 0);
        client->to_loaded();
    }
    const auto client = make_recorder();
    host_fail_call(HOST_CALL_DFGET, 0, 1);
    client->send(0, sample_programme().access_units[0], 1000000);
    EXPECT_EQ(client->wait_for_end(), 0u);
    host_fail_call(HOST_CALL_DFOPEN, 0, 1);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    EXPECT_EQ(client->wait_for_end(), 0u);
    EXPECT_EQ(record_of(*client)->bRecording, 0u);
    client->to_loaded();
}

TEST_F(Recording, StopsWithReason2AtTheLeastFreeSpaceAndNotAbove)
{
    const auto client = make_recorder();
    host_set_storage(0, 8000000, 51201);
    send_programme(*client, 3);
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 0u);
    host_set_storage(0, 8000000, 51200);
    client->send(1, pcm_buffer(sample_programme(), 9), audio_time_us(9));
    EXPECT_EQ(client->wait_for_end(), 2u);
    EXPECT_TRUE(has_logged("             8000000               51200\n"));
    client->to_loaded();
}

TEST_F(Recording, StopsWithReason4WhenTheFileCannotBeOpened)
{
    const auto client = make_recorder("/mnt/sdcard/none/x.mp4");
    send_programme(*client, 1);
    EXPECT_EQ(client->wait_for_end(), 4u);
    EXPECT_TRUE(has_logged("[Open:-4] Error:can't open file<mux_open\n"));
    client->to_loaded();
}

TEST_F(Recording, StopsWithReason7WhenTheComponentIsDestroyed)
{
    const auto client = make_recorder();
    send_programme(*client, 10);
    client->destroy();
    EXPECT_EQ(client->wait_for_end(0), 7u);
    EXPECT_GT(std::filesystem::file_size(RECORDING), 10000u);
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
    client->send(1, pcm_buffer(sample_programme(), 9), audio_time_us(9));
    EXPECT_EQ(client->wait_for_end(), 2u) << "on the buffer thread";
    host_set_storage(0, 8000000, 8000000);
    refuse_threads(1);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    client->destroy();
    EXPECT_EQ(client->wait_for_end(0), 0u) << "no file was opened";
}

TEST_F(Recording, CanBeStartedAgainFromTheEventOfItsEnd)
{
    const auto client = make_recorder();
    std::atomic<int> restarts = 0;
    client->on_event = [&](const IlEvent &event) {
        if (event.event == EVENT_END_OF_RECORDING && restarts++ < 2) {
            if (restarts == 2) {
                host_fail_call(HOST_CALL_DFOPEN, 0, 1);
            }
            EXPECT_EQ(client->start(), OMX_ErrorNone);
        }
    };
    send_programme(*client, 3);
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    send_programme(*client, 3);
    client->stop();
    // The storage cannot be opened for the third one, which ends within the event of the second.
    const std::optional<uint32_t> first = client->wait_for_end();
    const std::optional<uint32_t> second = client->wait_for_end();
    EXPECT_EQ(first.value_or(9) + second.value_or(9), 1u) << "reasons 0 and 1";
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 3u);
    client->on_event = nullptr;
    client->to_loaded();
}

TEST_F(Recording, CanBeStartedAndStoppedAtWillFromTheEventOfItsEnd)
{
    const auto client = make_recorder();
    std::atomic<int> rounds = 0;
    client->on_event = [&](const IlEvent &event) {
        if (event.event == EVENT_END_OF_RECORDING && rounds++ == 0) {
            EXPECT_EQ(client->start(), OMX_ErrorNone);
            (void)client->post(0, sample_programme().access_units[0], video_time_us(0));
            EXPECT_EQ(client->stop(), OMX_ErrorNone);
            EXPECT_EQ(client->start(), OMX_ErrorNone);
        }
    };
    client->stop();
    EXPECT_EQ(client->start(), OMX_ErrorNone) << "from two threads at once";
    EXPECT_TRUE(client->wait_for_end().has_value());
    EXPECT_TRUE(client->wait_for_end().has_value());
    client->destroy();
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 3u);
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

TEST_F(Recording, IgnoresAStartWhileItRuns)
{
    const auto client = make_recorder();
    send_programme(*client, 5);
    EXPECT_EQ(client->set_path("/mnt/sdcard/other.mp4"), OMX_ErrorNone);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    EXPECT_TRUE(has_logged("Start while recording: ignored"));
    send_programme(*client, 5, 5);
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_TRUE(std::filesystem::exists(RECORDING));
    EXPECT_FALSE(std::filesystem::exists("/mnt/sdcard/other.mp4"));
    client->to_loaded();
}

TEST_F(Recording, IsRefusedWhileAnotherComponentRecords)
{
    const auto client = make_recorder();
    const auto other = make_client();
    EXPECT_EQ(other->start(), 0x80001000u);
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 0u);
    EXPECT_EQ(other->start(), OMX_ErrorNone);
    other->destroy();
    EXPECT_EQ(other->wait_for_end(0), 0u);
    client->to_loaded();
}

TEST_F(Recording, DoesNotStartWithoutMemoryAndSurvivesWithoutItsBlocks)
{
    const auto client = make_client();
    client->to_executing();
    client->set_path(RECORDING);
    for (uint32_t n = 0; n < 3; n++) {
        host_fail_call(HOST_CALL_MALLOC, n, 1);
        EXPECT_EQ(client->start(), OMX_ErrorInsufficientResources);
        EXPECT_EQ(host_live_storage_handles(), 0);
    }
    for (uint32_t n = 3; n < 5; n++) { // the cache block, the close memory
        host_fail_call(HOST_CALL_MALLOC, n, 1);
        EXPECT_EQ(client->start(), OMX_ErrorNone);
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
    client->to_executing();
    client->set_path(RECORDING);
    OMX_AUDIO_PARAM_PCMMODETYPE pcm = {};
    pcm.nSamplingRate = 50000;
    EXPECT_EQ(OMX_SetParameter(client->handle(), OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    client->send(0, sample_programme().access_units[0], 1000000);
    OMX_BUFFERHEADERTYPE *const audio = client->post(1, pcm_buffer(sample_programme(), 0), 1000000);
    for (int i = 0; i < 100; i++) { // each of these wakes the loop
        client->send(0, sample_programme().access_units[1], 1033333);
        EXPECT_FALSE(client->wait_until_back(audio, 1));
    }
    const std::vector<LogLine> lines = log();
    const auto tries = std::count_if(lines.begin(), lines.end(), [](const LogLine &line) {
        return line.text == "Audio Dec init error.";
    });
    EXPECT_GE(tries, 3);
    EXPECT_LE(tries, 12) << "they come ever more seldom";
    client->stop();
    EXPECT_TRUE(client->wait_for_end().has_value());
    EXPECT_TRUE(client->wait_until_back(audio)) << "consumed once nothing is recorded";
    client->to_loaded();
}

TEST_F(Recording, TrustsNoLengthOfTheClient)
{
    const auto client = make_recorder();
    send_programme(*client, 2);
    const auto empty_with = [&](OMX_U32 port, OMX_U32 offset, OMX_U32 filled) {
        OMX_BUFFERHEADERTYPE header = {};
        Bytes memory(64);
        header.pBuffer = memory.data();
        header.nAllocLen = 64;
        header.nOffset = offset;
        header.nFilledLen = filled;
        header.nTimeStamp = 2000000;
        header.nInputPortIndex = port;
        record_of(*client)->ucBufferPort = static_cast<uint8_t>(port);
        omx_tdmbrec_component_BufferMgmtCallback(client->handle(), &header);
        EXPECT_EQ(header.nFilledLen, 0u);
    };
    for (OMX_U32 port : {0u, 1u}) {
        empty_with(port, 0, 65);
        empty_with(port, 65, 1);
        empty_with(port, 1, 64);
        empty_with(port, 0xFFFFFFFF, 2);
        empty_with(port, 2, 0xFFFFFFFF);
        empty_with(port, 60, 4); // zeros: no access unit; less than 128 bytes of PCM
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
    size_t round = 0;
    while (!is_over) {
        send_programme(*client, 8);
        if (++round % 8 == 0) {
            client->set_state(OMX_StatePause);
            client->set_state(OMX_StateExecuting);
        }
    }
    meddler.join();
    client->destroy();
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 61u) << "each recording ended once";
}

// The life of a recording and its ends, at the component's interface.
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/programme_player.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

class Recording : public ComponentTest {};

TEST_F(Recording, StopsWithTheReasonOfItsPathStorageOrSize)
{
    const auto client = make_client();
    client->to_executing();
    const auto end_of = [&](const std::string &path) {
        client->set_path(path);
        EXPECT_EQ(client->start(), OMX_ErrorNone);
        send_programme(*client, 3);
        return client->wait_for_end();
    };
    EXPECT_EQ(end_of("/mnt/sdcard/tflash/x.mp4"), 0u) << "no card";
    EXPECT_EQ(end_of("/media/x.mp4"), 0u);
    EXPECT_EQ(end_of(""), 0u);
    EXPECT_EQ(end_of("/mnt/sdcard/none/x.mp4"), 4u);
    EXPECT_TRUE(has_logged("[Open:-4] Error:can't open file<mux_open\n"));
    EXPECT_TRUE(has_logged("In QVR_FILE_fopen : /mnt/sdcard/none/x.mp4 open error\n"));
    EXPECT_TRUE(has_logged("In QVR_FILE_fopen : File Handle[0x00000000]\n"));
    host_fail_call(kHostCallDfget, 0, 1);
    EXPECT_EQ(end_of(kRecording), 0u);
    host_set_storage(0, 8000000, TDMBREC_LEAST_FREE_KIB);
    EXPECT_EQ(end_of(kRecording), 0u) << "full, but no file was ever opened";
    EXPECT_TRUE(has_logged("             8000000               51200\n"));
    host_fail_call(kHostCallDfopen, 0, 1);
    EXPECT_EQ(end_of(kRecording), 0u) << "it never began";
    host_set_storage(0, 8000000, TDMBREC_LEAST_FREE_KIB + 1);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    send_programme(*client, 3);
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 7u) << "room enough";
    host_set_storage(0, 8000000, TDMBREC_LEAST_FREE_KIB);
    send_programme(*client, 1, 3);
    EXPECT_EQ(client->wait_for_end(), 2u);
    host_set_storage(0, 8000000, TDMBREC_LEAST_FREE_KIB + 1);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    set_put_result(0, TDMBREC_FILE_LIMIT_BYTES);
    send_programme(*client, 3);
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 8u) << "as large as a file may be";
    set_put_result(0, TDMBREC_FILE_LIMIT_BYTES + 1);
    send_programme(*client, 1, 3);
    EXPECT_EQ(client->wait_for_end(), 6u);
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
    client->to_loaded();
}

TEST_F(Recording, CanBeStartedAndStoppedAtWillFromTheEventOfItsEnd)
{
    const auto client = make_recorder();
    std::atomic<int> rounds = 0;
    std::promise<void> handled;
    client->on_event = [&](const IlEvent &event) {
        if (event.event == TDMBREC_EVENT_END_OF_RECORDING && rounds++ == 0) {
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
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 3u);
}

TEST_F(Recording, IsOverWhenTheComponentGoesAlsoForAClientThatStartsAtEveryEnd)
{
    const auto client = make_recorder();
    client->on_event = [&](const IlEvent &event) {
        if (event.event == TDMBREC_EVENT_END_OF_RECORDING) {
            (void)client->start();
        }
    };
    client->stop();
    client->destroy();
    EXPECT_LE(client->count(TDMBREC_EVENT_END_OF_RECORDING), 2u);
}

TEST_F(Recording, OutlivesAClientThatStartsTwiceAtEveryEndWithoutStorage)
{
    const auto client = make_client();
    uint32_t starts = 1;
    int depth = 0;
    client->on_event = [&](const IlEvent &) {
        EXPECT_EQ(++depth, 1) << "an end within the event of another";
        for (int i = 0; i < 2 && starts < 100000; i++, starts++) {
            EXPECT_EQ(client->start(), OMX_ErrorNone);
        }
        depth--;
    };
    host_fail_call(kHostCallDfopen, 0, UINT32_MAX);
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), starts);
}

TEST_F(Recording, IsReportedInTheOrderInWhichTheRecordingsEnded)
{
    const auto client = make_recorder();
    const auto other = make_client();
    std::atomic<bool> is_in_event = false;
    std::string ends;
    const auto watch = [&](IlClient &watched, char name,
                           const std::function<void()> &at_first_end) {
        watched.on_event = [&, name, at_first_end](const IlEvent &event) {
            if (event.event != TDMBREC_EVENT_END_OF_RECORDING) {
                return;
            }
            EXPECT_FALSE(is_in_event.exchange(true)) << "two at once";
            ends += name + std::to_string(event.data2) + ' ';
            if (ends.size() == 3) {
                at_first_end();
            }
            is_in_event = false;
        };
    };
    // Every start waits until the recording before it is closed.
    watch(*client, 'A', [&] {
        EXPECT_EQ(client->start(), OMX_ErrorNone);
        send_programme(*client, 3);
        host_set_storage(0, 8000000, TDMBREC_LEAST_FREE_KIB);
        send_programme(*client, 1, 3);
        host_set_storage(0, 8000000, 4000000);
        for (uint32_t n = 3; n < kMostUnreportedEnds; n++) {
            EXPECT_EQ(client->start(), OMX_ErrorNone) << n;
            send_programme(*client, 3);
            refuse_threads(n == 3 ? 1 : 0); // the first one ends on this thread
            EXPECT_EQ(client->stop(), OMX_ErrorNone);
            if (n == 3) {
                host_fail_call(kHostCallDfopen, 0, 2);
                EXPECT_EQ(client->start(), OMX_ErrorNone);
                EXPECT_EQ(other->start(), OMX_ErrorNone);
            }
        }
        EXPECT_EQ(client->start(), OMX_ErrorInsufficientResources) << "too many unreported ends";
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time for one out of turn
    });
    watch(*other, 'B', [] {});
    send_programme(*client, 3);
    client->stop();
    for (uint32_t n = 0; n < kMostUnreportedEnds; n++) {
        EXPECT_TRUE(client->wait_for_end().has_value());
    }
    EXPECT_EQ(ends, "A1 A2 A1 A0 B0 A1 A1 A1 A1 ");
    EXPECT_EQ(client->start(), OMX_ErrorNone) << "all have been reported";
    client->destroy();
    EXPECT_EQ(client->wait_for_end(0), 0u);
}

TEST_F(Recording, EndsForAnotherComponentThatGoesWithinTheEvent)
{
    for (const char way : {'0', 't', 'p', 'w'}) {
        const auto client = make_recorder();
        const auto other = make_client();
        other->to_executing();
        std::string ended;
        client->on_event = [&](const IlEvent &event) {
            if (event.event == TDMBREC_EVENT_END_OF_RECORDING && ended.empty()) {
                if (way == '0') {
                    host_fail_call(kHostCallDfopen, 0, 2); // both starts end at once
                }
                EXPECT_EQ(other->start(), OMX_ErrorNone);
                if (way == 'w') { // its stop thread waits for the return of this event
                    EXPECT_EQ(other->stop(), OMX_ErrorNone);
                    EXPECT_EQ(other->start(), OMX_ErrorNone);
                }
                refuse_threads(way == 'p' ? 1 : 0); // in place
                other->destroy();
            }
            ended += event.event == TDMBREC_EVENT_END_OF_RECORDING ? "client " : "";
        };
        other->on_event = [&](const IlEvent &event) {
            if (event.event == TDMBREC_EVENT_END_OF_RECORDING) {
                if (way != 'w') {
                    host_fail_call(kHostCallDfopen, 0, 1);
                    EXPECT_EQ(client->start(), OMX_ErrorNone);
                }
                ended += "other ";
            }
        };
        client->stop();
        EXPECT_TRUE(client->wait_for_end().has_value());
        client->destroy();
        EXPECT_EQ(ended, way == 'w' ? "other other client " : "other client client ")
            << "its own next end comes after the event";
    }
}

// Each of the two handlers expects the data that was set with it.
template <int Own>
static OMX_ERRORTYPE expect_own_data(OMX_HANDLETYPE, OMX_PTR data, OMX_EVENTTYPE, OMX_U32, OMX_U32,
                                     OMX_PTR)
{
    EXPECT_EQ(*static_cast<int *>(data), Own);
    return OMX_ErrorNone;
}

TEST_F(Recording, KeepsItsClientFromTheStartToTheReturnOfItsEvent)
{
    const auto client = make_client();
    OMX_COMPONENTTYPE *const handle = client->handle();
    int data[] = {0, 1};
    OMX_CALLBACKTYPE callbacks[] = {{expect_own_data<0>, nullptr, nullptr},
                                    {expect_own_data<1>, nullptr, nullptr}};
    const auto change = [&](int i) {
        return handle->SetCallbacks(handle, &callbacks[i], &data[i]);
    };
    client->on_event = [&](const IlEvent &) {
        EXPECT_EQ(change(0), OMX_ErrorIncorrectStateOperation) << "from the event";
    };
    EXPECT_EQ(client->start(), OMX_ErrorNone);
    EXPECT_EQ(change(0), OMX_ErrorIncorrectStateOperation) << "recording";
    client->stop();
    while (change(0) != OMX_ErrorNone) {
        std::this_thread::yield();
    }
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 1u);
    host_fail_call(kHostCallDfopen, 0, UINT32_MAX);
    std::thread starter([&] {
        for (int i = 0; i < 1000; i++) {
            EXPECT_EQ(client->start(), OMX_ErrorNone);
        }
    });
    for (int i = 0; i < 1000; i++) {
        (void)change(i % 2);
    }
    starter.join();
    client->destroy();
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
    EXPECT_TRUE(std::filesystem::exists(kRecording));
    EXPECT_FALSE(std::filesystem::exists("/mnt/sdcard/other.mp4"));
    EXPECT_EQ(other->start(), OMX_ErrorNone);
    client->to_loaded();
}

TEST_F(Recording, DoesNotStartWithoutMemoryAndSurvivesWithoutItsBlocks)
{
    const auto client = make_client();
    client->to_executing();
    client->set_path(kRecording);
    for (uint32_t n = 0; n < 5; n++) {
        host_fail_call(kHostCallMalloc, n, 1);
        if (n < 3) {
            EXPECT_EQ(client->start(), OMX_ErrorInsufficientResources);
            EXPECT_EQ(host_live_storage_handles(), 0);
            continue;
        }
        EXPECT_EQ(client->start(),
                  OMX_ErrorNone); // n 3: without the cache block; 4: without the close memory
        send_programme(*client, 35);
        client->stop();
        EXPECT_EQ(client->wait_for_end(), 1u);
        EXPECT_GT(std::filesystem::file_size(kRecording), 40000u);
    }
    client->to_loaded();
}

TEST_F(Recording, KeepsTheAudioBufferWhileTheEncoderCannotBeOpened)
{
    const auto client = make_client();
    record_of(*client)->uiSampleRate = 50000;
    client->start_recording(kRecording);
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
    EXPECT_LE(tries, 12 + seconds / std::chrono::seconds(1)) << "the pauses between them grow";
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
        {2, UINT32_MAX}, {60, 4}}; // the last one is valid, but four zeros are no unit
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

TEST_F(Recording, SurvivesStopsStartsAndStateChangesWhileItsParametersAndStorageChange)
{
    const std::string paths[] = {kRecording + std::string(60, 'a'),
                                 kRecording + std::string(60, 'b')};
    const auto client = make_recorder(paths[0]);
    std::atomic<bool> is_over = false;
    std::thread meddler([&] {
        for (uint32_t i = 0; i < 60; i++) {
            client->stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 4));
            host_fail_call(kHostCallDfopen, 0, i % 9 == 0); // there is no storage
            EXPECT_EQ(client->start(), OMX_ErrorNone);
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 7));
            host_fail_call(kHostCallDfget, 0, i % 5 == 0); // it vanishes
            host_set_storage(0, 8000000,
                             i % 11 == 0 ? TDMBREC_LEAST_FREE_KIB : 4000000); // it is full
        }
        is_over = true;
    });
    std::thread setter([&] {
        std::string name(TDMBREC_NAME_PART_2_BYTES, 'n');
        OMX_AUDIO_PARAM_PCMMODETYPE pcm = {};
        pcm.nSamplingRate = 48000;
        for (uint32_t i = 0; !is_over; i++) {
            client->set_path(paths[i % 2]);
            for (const auto index : {TDMBREC_INDEX_NAME_PART_1, TDMBREC_INDEX_NAME_PART_2}) {
                EXPECT_EQ(OMX_SetParameter(client->handle(), index, name.data()), OMX_ErrorNone);
            }
            EXPECT_EQ(OMX_SetParameter(client->handle(), OMX_IndexParamAudioPcm, &pcm),
                      OMX_ErrorNone);
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    for (size_t round = 1; !is_over; round++) {
        send_programme(*client, 8);
        if (round % 8 == 0) {
            client->set_state(OMX_StatePause);
            client->set_state(OMX_StateExecuting);
        }
    }
    meddler.join();
    setter.join();
    client->destroy();
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 61u) << "each recording ended once";
    for (const auto &entry : std::filesystem::directory_iterator("/mnt/sdcard")) {
        EXPECT_TRUE(!entry.is_regular_file() || entry.path() == paths[0] ||
                    entry.path() == paths[1])
            << entry.path() << " mixes two paths";
        if (entry.is_regular_file()) {
            std::filesystem::remove(entry);
        }
    }
}

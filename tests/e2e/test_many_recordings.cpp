// A thousand recordings in one process leak nothing, and none allocates per frame.
#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"

#include <filesystem>
#include <fstream>

class ManyRecordings : public RecorderTest {};

static std::ptrdiff_t entries(const char *folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

static size_t resident_kib()
{
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0;
    size_t resident = 0;
    statm >> pages >> resident;
    return resident * 4;
}

// The memory of a sanitizer or an emulator grows.
static bool owns_its_memory()
{
#ifdef TDMBREC_EMULATED
    return false;
#else
    return can_count_allocations();
#endif
}

TEST_F(ManyRecordings, LeakNoThreadFileOrMemory)
{
    host_set_log_level(ANDROID_LOG_SILENT); // the fixture keeps every line
    const auto client = make_client();
    client->to_executing();
    client->set_path(kBuiltInFile);
    std::ptrdiff_t threads = 0, files = 0;
    size_t resident = 0;
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(client->start(), OMX_ErrorNone);
        send_programme(*client, 4);
        ASSERT_EQ(client->stop(), OMX_ErrorNone);
        ASSERT_EQ(client->wait_for_end(), 1u) << i;
        if (i == 200) {
            threads = entries("/proc/self/task");
            files = entries("/proc/self/fd");
            resident = resident_kib();
        }
    }
    EXPECT_LE(entries("/proc/self/task"), threads + 1) << "one stop thread may be ending";
    EXPECT_EQ(entries("/proc/self/fd"), files);
    if (owns_its_memory()) {
        EXPECT_LT(resident_kib(), resident + 1024) << "the client keeps its events";
    }
    client->to_loaded();
    expect_plays();
}

TEST_F(ManyRecordings, AllocateNothingPerFrame)
{
    if (!can_count_allocations()) {
        GTEST_SKIP() << "a sanitizer replaces the allocator";
    }
    for (const char *const interval_ms : {"", "100"}) { // of the checkpoints
        host_set_property(TDMBREC_CHECKPOINT_PROPERTY, interval_ms);
        const auto client = start_recording();
        const Programme &programme = sample_programme();
        const Bytes pcm = pcm_buffer(programme, 40);
        send_programme(*client, 40);
        const size_t lines = log().size(); // the fixture allocates for a log line
        const uint64_t start = allocation_count();
        for (size_t i = 40; i < 240; i++) {
            const OMX_BUFFERHEADERTYPE *const video =
                client->post(TDMBREC_PORT_VIDEO, programme.access_units[i], video_time_us(i));
            const OMX_BUFFERHEADERTYPE *const audio =
                client->post(TDMBREC_PORT_AUDIO, pcm, video_time_us(i));
            client->wait_until_back(video);
            client->wait_until_back(audio);
        }
        const uint64_t total = allocation_count() - start;
        EXPECT_EQ(total, 0u);
        EXPECT_EQ(log().size(), lines);
        finish(*client);
    }
}

// A thousand recordings in one process leave it as they found it.
#include "platform/host/host_control.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"

#include <filesystem>
#include <fstream>

class ManyRecordings : public RecorderTest {};

struct Footprint {
    size_t threads;
    size_t files;
    size_t resident_kib;
};

static size_t entries(const char *folder)
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder)) {
        count++;
    }
    return count;
}

static Footprint footprint()
{
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0;
    size_t resident = 0;
    statm >> pages >> resident;
    return {entries("/proc/self/task"), entries("/proc/self/fd"), resident * 4};
}

TEST_F(ManyRecordings, LeaveNoThreadFileOrMemoryBehind)
{
    host_set_log_level(8); // the test would keep every line
    const auto client = make_client();
    client->to_executing();
    client->set_path(BUILT_IN_FILE);
    Footprint early = {};
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(client->start(), OMX_ErrorNone);
        send_programme(*client, 4);
        ASSERT_EQ(client->stop(), OMX_ErrorNone);
        ASSERT_EQ(client->wait_for_end(), 1u) << i;
        if (i == 200) {
            early = footprint();
        }
    }
    const Footprint late = footprint();
    EXPECT_LE(late.threads, early.threads + 1) << "one stop thread may be ending";
    EXPECT_EQ(late.files, early.files);
    if (can_count_allocations()) { // a sanitizer's own memory grows
        EXPECT_LT(late.resident_kib, early.resident_kib + 1024) << "the client keeps its events";
    }
    client->to_loaded();
    expect_plays();
}

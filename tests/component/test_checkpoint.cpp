// Checkpoints: what is on the storage while a recording runs, and that nothing else changes.
#include "journal/journal.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/programme_player.h"
#include "tests/support/wrapped_calls.h"

#include <atomic>
#include <filesystem>
#include <future>
#include <pthread.h>

constexpr char kJournal[] = "/mnt/sdcard/recording.mp4.journal";

class Checkpoint : public ComponentTest {
  protected:
    void SetUp() override
    {
        ComponentTest::SetUp();
        std::filesystem::remove_all(kJournal);
    }
    void TearDown() override
    {
        reset_wrapped_calls();
        std::filesystem::remove_all(kJournal);
        ComponentTest::TearDown();
    }

    // returns: a client that has sent frames of the sample
    static auto start(const char *interval_ms, size_t frames)
    {
        host_set_property(TDMBREC_CHECKPOINT_PROPERTY, interval_ms);
        auto client = make_recorder();
        send_programme(*client, frames);
        return client;
    }

    static void finish(IlClient &client)
    {
        client.stop();
        EXPECT_EQ(client.wait_for_end(), 1u);
        client.to_loaded();
    }

    // Records 60 frames.
    // returns: the finished file; `calls` gets the file calls
    static Bytes record(const char *interval_ms, NotedCalls *calls = nullptr)
    {
        note_file_calls(calls, nullptr);
        finish(*start(interval_ms, 60));
        note_file_calls(nullptr, nullptr);
        return read_file(kRecording);
    }

    size_t count_logged(const std::string &begin)
    {
        size_t lines = 0;
        for (const LogLine &line : log()) {
            lines += line.text.starts_with(begin) ? 1u : 0u;
        }
        return lines;
    }
};

struct JournalContent {
    journal_settings_t settings;
    std::vector<journal_frame_t> frames;
    uint64_t media_end = 0; // after the last frame
};

// Reads the journal against the file: every group must describe bytes that are there.
static JournalContent read_journal()
{
    const Bytes journal = read_file(kJournal), media = read_file(kRecording);
    JournalContent content = {};
    uint32_t head_bytes = 0;
    uint16_t version = 0;
    EXPECT_EQ(
        journal_read_head(journal.data(), journal.size(), &content.settings, &head_bytes, &version),
        kJournalRead);
    EXPECT_STREQ(content.settings.path, kRecording);
    for (size_t at = head_bytes; at < journal.size();) {
        journal_group_reader_t group;
        if (journal_open_group(&group, &journal[at], journal.size() - at,
                               content.settings.session) != kJournalRead) {
            ADD_FAILURE() << "a group at " << at;
            break;
        }
        journal_sum_t sum = journal_sum_begin(content.settings.session);
        content.media_end = group.media_begin;
        journal_frame_t frame;
        while (journal_next_frame(&group, &frame)) {
            EXPECT_LE(content.media_end + frame.bytes, media.size());
            journal_sum_add(&sum, &media[static_cast<size_t>(content.media_end)], frame.bytes);
            content.media_end += frame.bytes;
            content.frames.push_back(frame);
        }
        EXPECT_EQ(journal_sum_end(&sum), group.media_sum);
        at += group.group_bytes;
    }
    return content;
}

TEST_F(Checkpoint, IsOffWithoutANumberAndThenLeavesEveryFileCallAsItWas)
{
    NotedCalls expected;
    const Bytes file = record(nullptr, &expected);
    EXPECT_EQ(std::count(expected.begin(), expected.end(), "fdatasync"), 0);
    for (const char *const value : {"", "0", "-1", "1000 ms", "x"}) {
        NotedCalls calls;
        EXPECT_EQ(record(value, &calls), file);
        EXPECT_EQ(calls, expected) << value;
    }
}

TEST_F(Checkpoint, ChangesNoByteOfTheFileAndRemovesTheJournalWithTheMovieBoxOnTheStorage)
{
    const Bytes file = record(nullptr);
    for (const char *const value : {"1", "100", "1000", "99999999999999999999"}) {
        NotedCalls calls;
        EXPECT_EQ(record(value, &calls), file) << value;
        EXPECT_FALSE(std::filesystem::exists(kJournal));
        ASSERT_GE(calls.size(), 3u);
        const std::vector<std::string> last(calls.end() - 3, calls.end());
        EXPECT_EQ(last, (std::vector<std::string>{"fclose", "fdatasync",
                                                  std::string("unlink ") + kJournal}));
    }
}

TEST_F(Checkpoint, LeavesAtMostTheIntervalOutOfTheFileAndTheJournal)
{
    for (const uint32_t interval_ms : {1u, 200u, 1000u}) {
        NotedTimes times;
        note_times(&times, false);
        host_set_property(TDMBREC_CHECKPOINT_PROPERTY, std::to_string(interval_ms).c_str());
        const auto client = make_recorder();
        for (size_t i = 0; i < 60; i++) {
            send_programme(*client, 1, i);
            if (times.empty()) {
                continue;
            }
            const JournalContent content = read_journal();
            EXPECT_LE(content.frames.size(), times.size());
            EXPECT_EQ(content.frames.empty() ? 36 : content.media_end,
                      std::filesystem::file_size(kRecording));
            uint32_t latest_ms = 0, journaled_ms = 0;
            for (size_t n = 0; n < times.size(); n++) {
                latest_ms = std::max(latest_ms, times[n].second);
                if (n < content.frames.size()) {
                    EXPECT_EQ(content.frames[n].type, times[n].first);
                    EXPECT_EQ(content.frames[n].time_ms, times[n].second);
                    journaled_ms = latest_ms;
                }
            }
            EXPECT_LT(latest_ms - journaled_ms, std::max(interval_ms * 4 / 5, 1u)) << interval_ms;
        }
        client->destroy();
        note_times(nullptr, false);
    }
}

TEST_F(Checkpoint, LetsOnlyItsOwnThreadAndTheStopWaitForTheStorage)
{
    pthread_t buffer_thread = {};
    std::atomic<int> syncs = 0;
    std::promise<void> begin, release;
    const std::shared_future<void> released = release.get_future().share();
    note_file_calls(nullptr, [&](const std::string &call) {
        if (call.starts_with("write ")) {
            buffer_thread = pthread_self(); // the only one that writes groups before the stop
        } else if (call == "fdatasync" && syncs++ == 0) {
            begin.set_value();
            released.wait(); // a device that does not answer
        }
        return false;
    });
    const auto client = start("100", 10);
    begin.get_future().wait();
    send_programme(*client, 50, 10);
    EXPECT_EQ(syncs, 1) << "the buffers were consumed meanwhile";
    const JournalContent content = read_journal();
    EXPECT_GT(content.frames.size(), 100u);
    note_file_calls(nullptr, [&](const std::string &call) {
        if (call == "fdatasync") {
            EXPECT_EQ(pthread_equal(pthread_self(), buffer_thread), 0);
        }
        return false;
    });
    client->stop();
    release.set_value();
    EXPECT_EQ(client->wait_for_end(), 1u);
    client->to_loaded();
    EXPECT_FALSE(std::filesystem::exists(kJournal));
}

TEST_F(Checkpoint, GivesUpAJournalThatCannotBeWrittenWithOneLine)
{
    const Bytes file = record(nullptr);
    const auto log_of = [&](const std::string &place) {
        const size_t before = count_logged("Checkpoint: ");
        EXPECT_EQ(record("100"), file) << place;
        return count_logged("Checkpoint: ") - before;
    };
    std::filesystem::create_directory(kJournal);
    EXPECT_EQ(log_of("a folder"), 1u);
    std::filesystem::remove(kJournal);
    std::filesystem::create_symlink("/dev/full", kJournal);
    EXPECT_EQ(log_of("a full storage"), 1u);
    EXPECT_TRUE(has_logged("Checkpoint: the journal is given up: No space left on device\n"));

    note_file_calls(nullptr, [](const std::string &call) {
        if (call.starts_with("open ") && call.ends_with(TDMBREC_JOURNAL_SUFFIX)) {
            refuse_threads(1);
        }
        return false;
    });
    const auto client = start("100", 60);
    EXPECT_GT(read_journal().frames.size(), 100u) << "without the thread that waits";
    client->destroy();
    EXPECT_TRUE(has_logged("Checkpoint: nothing is synced: "));
    EXPECT_EQ(read_file(kRecording), file);
}

TEST_F(Checkpoint, KeepsTheJournalOfAFileThatIsNotFinished)
{
    const auto client = start("1000", 60);
    set_put_result(MUX_ERR_WRITE, 0);
    send_programme(*client, 1, 60);
    EXPECT_EQ(client->wait_for_end(), 5u);
    EXPECT_FALSE(std::filesystem::exists(kJournal)) << "this close succeeds";
    reset_wrapped_calls();

    client->start();
    send_programme(*client, 60);
    const Bytes before = read_file(kJournal);
    note_file_calls(nullptr, [](const std::string &call) { return call == "fseek 28"; });
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_TRUE(has_logged("[Close:"));
    const JournalContent content = read_journal();
    EXPECT_GT(read_file(kJournal).size(), before.size()) << "with the last group";
    EXPECT_EQ(content.media_end, read_file(kRecording).size());
    client->to_loaded();
}

// Descriptors that are still open would be a second recording's loss.
TEST_F(Checkpoint, SyncsTheFileTheJournalAndTheirFolderAndClosesAllOfThem)
{
    const auto open_files = [] {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::distance(begin(files), end(files));
    };
    (void)record("1000");
    const auto open_before = open_files();
    NotedCalls calls;
    std::promise<void> first;
    note_file_calls(&calls, [&](const std::string &call) {
        if (call == "fsync") {
            first.set_value();
        }
        return false;
    });
    const auto client = start("1000", 10);
    first.get_future().wait();
    send_programme(*client, 50, 10);
    finish(*client);
    EXPECT_EQ(open_files(), open_before);
    std::erase_if(calls, [](const std::string &call) { return !call.ends_with("sync"); });
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "fsync"), 1);
    EXPECT_EQ(calls[2], "fsync");
    EXPECT_EQ(calls.size() % 2, 0u) << "each time both files, at the end the recording";
}

// A device reports lost bytes once: a later sync that succeeds proves nothing.
TEST_F(Checkpoint, KeepsTheJournalAfterASyncThatFailed)
{
    std::atomic<int> syncs = 0;
    std::promise<void> failed;
    on_log = [&](const LogLine &line) {
        if (line.text.starts_with("Checkpoint: nothing is synced")) {
            failed.set_value();
        }
    };
    note_file_calls(nullptr,
                    [&](const std::string &call) { return call == "fdatasync" && syncs++ == 0; });
    const auto client = start("100", 10);
    failed.get_future().wait();
    send_programme(*client, 50, 10);
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    EXPECT_EQ(syncs, 1) << "it is not asked again";
    EXPECT_TRUE(std::filesystem::exists(kJournal));
    EXPECT_EQ(count_logged("Checkpoint: nothing is synced"), 1u);
    client->to_loaded();
}

TEST_F(Checkpoint, TriesAgainWhenTheStorageRefusesAWrite)
{
    const Bytes file = record(nullptr);
    int writes = 0;
    note_file_calls(nullptr, [&](const std::string &call) {
        return call.starts_with("fwrite ") && ++writes % 2 == 0;
    });
    const auto client = start("100", 60);
    note_file_calls(nullptr, nullptr);
    const JournalContent content = read_journal();
    EXPECT_GT(content.frames.size(), 100u);
    EXPECT_EQ(count_logged("Checkpoint: the cached bytes cannot be written"), 1u);
    client->destroy();
    EXPECT_EQ(read_file(kRecording), file);
}

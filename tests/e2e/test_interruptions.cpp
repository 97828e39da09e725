// Recordings with checkpoints that a kill or a failing storage interrupts come back from the media
// data and the journal, as the bytes of a normal stop after the last whole frame.
#include "platform/host/host_control.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"
#include "tests/support/recovery_run.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static constexpr uint32_t kCheckpointMs = 1000;
static constexpr int kKills = 12;

static std::ptrdiff_t count_threads()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// Before main(). The first thread of a program can bring one of the sanitizer's or the emulator's,
// which stays.
static const std::ptrdiff_t kThreadsAtRest = [] {
    std::thread([] {}).join();
    for (int wait_ms = 0; wait_ms < 100 && count_threads() > 1; wait_ms++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return count_threads();
}();

// The frames of a recording that came back.
struct Recovered {
    size_t frames;
    bool is_in_journal; // all of them
};

// A buffer of the programme. Each one becomes one frame.
struct Unit {
    OMX_U32 port;
    Bytes bytes;
    int64_t time_us;
};

static std::vector<Unit> make_units()
{
    const Programme &programme = sample_programme();
    std::vector<Unit> units;
    size_t sound = 0;
    for (size_t i = 0; i < programme.access_units.size(); i++) {
        units.push_back({TDMBREC_PORT_VIDEO, programme.access_units[i], video_time_us(i)});
        for (; audio_time_us(sound) < video_time_us(i + 1); sound++) {
            units.push_back(
                {TDMBREC_PORT_AUDIO, pcm_buffer(programme, sound), audio_time_us(sound)});
        }
    }
    return units;
}

class Interruption : public RecorderTest {
  protected:
    void SetUp() override
    {
        RecorderTest::SetUp();
        for (const std::string path : {kBuiltInFile, kCardFile}) {
            std::filesystem::remove(path + TDMBREC_JOURNAL_SUFFIX);
        }
    }

    static void make_checkpoints()
    {
        host_set_property(TDMBREC_CHECKPOINT_PROPERTY, std::to_string(kCheckpointMs).c_str());
    }

    // Counts each unit in `sent` before it is sent.
    void send_units(IlClient &client, size_t count, std::atomic<uint32_t> *sent = nullptr) const
    {
        send_time_base(client);
        for (size_t i = 0; i < count; i++) {
            if (sent != nullptr) {
                ++*sent;
            }
            client.send(units[i].port, units[i].bytes, units[i].time_us);
        }
    }

    // returns: the file of a recording without checkpoints that is stopped after `frames`
    Bytes stop_after(size_t frames) const
    {
        host_set_property(TDMBREC_CHECKPOINT_PROPERTY, nullptr);
        const auto client = start_recording("/mnt/sdcard/normal.mp4");
        send_units(*client, frames);
        EXPECT_EQ(finish(*client), 1u);
        client->destroy();
        const Bytes file = read_file("/mnt/sdcard/normal.mp4");
        std::filesystem::remove("/mnt/sdcard/normal.mp4");
        return file;
    }

    // returns: how many frames of the whole programme's recording end within `bytes`
    size_t whole_frames_within(uintmax_t bytes) const
    {
        static const mp4_reader::movie whole = mp4_reader::read_movie(stop_after(units.size()));
        size_t frames = 0;
        for (const mp4_reader::track &track : whole.tracks) {
            frames += static_cast<size_t>(
                std::count_if(track.samples.begin(), track.samples.end(), [&](const auto &sample) {
                    return sample.offset + sample.size <= bytes;
                }));
        }
        return frames;
    }

    // Recovers what is at the path, and expects all of its whole frames and nothing else: with the
    // bytes of a normal stop if the journal has all of them, else with nearly its times.
    Recovered expect_recovered(const std::string &path) const
    {
        const size_t frames = whole_frames_within(std::filesystem::file_size(path));
        interrupted_files files = {read_file(path)};
        if (std::filesystem::exists(path + TDMBREC_JOURNAL_SUFFIX)) {
            files.journal = read_file(path + TDMBREC_JOURNAL_SUFFIX);
        }
        const recovered recovered = recover_files(files);
        EXPECT_EQ(recovered.report.holes, 0u);
        if (frames == 0) {
            EXPECT_NE(recovered.code, RECOVERY_DONE); // the file can still be empty
            return {0, true};
        }
        EXPECT_EQ(recovered.code, RECOVERY_DONE) << recovered.report.message;
        EXPECT_EQ(recovered.report.journal, RECOVERY_JOURNAL_USED);
        EXPECT_TRUE(recovered.file == stop_after(frames)) << frames << " frames";
        return {frames, recovered.report.journaled_frames == frames};
    }

    // Records in a child process, which it kills once so many units were sent.
    // returns: the units sent
    size_t kill_after(size_t count) const
    {
        void *const shared = mmap(nullptr, sizeof(std::atomic<uint32_t>), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        auto *const sent = new (shared) std::atomic<uint32_t>(0);
        while (count_threads() > kThreadsAtRest) { // it may hold a lock of the allocator
            std::this_thread::yield();
        }
        const pid_t child = fork();
        if (child == 0) {
            make_checkpoints();
            const auto client = start_recording();
            send_units(*client, units.size(), sent);
            pause();
        }
        while (*sent < count && waitpid(child, nullptr, WNOHANG) == 0) {
            std::this_thread::yield();
        }
        EXPECT_EQ(kill(child, SIGKILL), 0);
        waitpid(child, nullptr, 0);
        const size_t result = *sent;
        munmap(shared, sizeof(std::atomic<uint32_t>));
        return result;
    }

    const std::vector<Unit> units = make_units();
};

TEST_F(Interruption, ByAKillLosesLessThanTheInterval)
{
    const char *const wish = std::getenv("SEED");
    const uint32_t seed = wish != nullptr ? static_cast<uint32_t>(std::atoi(wish)) : 1;
    SCOPED_TRACE("SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    int journaled = 0;
    for (int i = 0; i < kKills; i++) {
        const size_t sent = kill_after(random() % units.size() + 1);
        const Recovered recovered = expect_recovered(kBuiltInFile);
        const size_t last = std::max<size_t>(recovered.frames, 1) - 1;
        EXPECT_LE(units[sent - 1].time_us - units[last].time_us, kCheckpointMs * 1000)
            << recovered.frames << " of " << sent << " units";
        journaled += recovered.is_in_journal ? 1 : 0;
        std::filesystem::remove(kBuiltInFile);
    }
    EXPECT_GE(journaled, kKills - 1) << "few kills come between media data and their group";
}

// Leaves `left` bytes free on the card.
static void fill_card(off_t left)
{
    const std::string filler = "/mnt/sdcard/tflash/filler";
    const int file = open(filler.c_str(), O_WRONLY | O_CREAT, 0600);
    const auto room = static_cast<off_t>(std::filesystem::space("/mnt/sdcard/tflash").available);
    EXPECT_EQ(posix_fallocate(file, 0, room - left), 0);
    close(file);
}

// Lets files grow to `bytes`; 0: as far as they could at first.
static void limit_files(rlim_t bytes)
{
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes == 0 ? limit.rlim_max : bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST_F(Interruption, ByAStorageThatFailsKeepsEveryWholeFrame)
{
    const struct {
        const char *storage;
        void (*fail)();
        size_t sent_before; // of all units
        size_t least_frames;
        bool keeps_journal;
    } cases[] = {
        {"is full in the middle", [] { fill_card(20000); }, 400, 380, false},
        {"refuses a long file", [] { limit_files(350000); }, 400, 420, true},
        {"has no room for the end", [] { fill_card(0); }, units.size(), units.size() - 40, false},
    };
    (void)signal(SIGXFSZ, SIG_IGN);
    for (const auto &[storage, fail, sent_before, least_frames, keeps_journal] : cases) {
        SCOPED_TRACE(storage);
        use_card();
        make_checkpoints();
        const auto client = start_recording(kCardFile);
        send_units(*client, sent_before);
        fail();
        for (size_t i = sent_before; i < units.size(); i++) {
            client->send(units[i].port, units[i].bytes, units[i].time_us);
        }
        EXPECT_EQ(finish(*client), 1u);
        client->destroy();
        limit_files(0);
        std::filesystem::remove("/mnt/sdcard/tflash/filler");
        EXPECT_NE(first_fault(mp4_reader::read_movie(read_file(kCardFile))), "");
        const Recovered recovered = expect_recovered(kCardFile);
        EXPECT_GE(recovered.frames, least_frames);
        EXPECT_TRUE(recovered.is_in_journal || !keeps_journal);
        std::filesystem::remove(kCardFile);
        std::filesystem::remove(std::string(kCardFile) + TDMBREC_JOURNAL_SUFFIX);
    }
}

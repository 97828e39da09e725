// Recorded data survives whatever ends the recording: faults are injected into the running command.
#include "tests/client/command_test.h"

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

#define FOLDER "b.mp4.recording"
#define LEFT FOLDER "/recording.mp4"
#define SLOW "--realtime --frame-rate 10 --video $IN/noise.h264 --audio $IN/programme.wav -o b.mp4 "

// Records in the background, and waits until the component has written media data.
#define UNDER_WAY                                                                                  \
    RECORD SLOW "& p=$!; until [ -n \"$(find " LEFT                                                \
                " -size +1k)\" ]; do kill -0 $p || break; sleep 0.05; done; "

class KeptRecording : public CommandTest {
  protected:
    // Records the sample to the file whole, and copies it to torn without the movie box.
    void record_whole()
    {
        const command_result made =
            shell(RECORD SAMPLE "-o whole && sed s/moov/xxxx/ whole > torn");
        if (made.status != 0) {
            GTEST_SKIP() << "no storage: " << made.err;
        }
    }

    // Makes half a minute of pictures that fill the component's cache within a second.
    void make_noise()
    {
        const command_result made = ffmpeg(
            "-f rawvideo -video_size 320x240 -framerate 10 -t 30 -i /dev/urandom -c:v libx264 "
            "-preset ultrafast -bf 0 -qp 22 noise.h264");
        if (made.status != 0 || shell("unshare -rm true").status != 0) {
            GTEST_SKIP() << "no ffmpeg that makes the pictures, or no namespaces: " << made.err;
        }
    }
};

TEST_F(KeptRecording, ReportsFileAndFaultAndPublishesACompleteFile)
{
    record_whole();
    const struct {
        const char *file, *environment;
        int status;
        const char *fault;
    } cases[] = {
        {"torn", "", 8, "tdmbrec: the recorder component could not finish the file\n"},
        {"torn", "SCRIPT_FAIL=later", 8, "refuses a buffer (0x80001001)\n"},
        {"torn", "SCRIPT_BUFFERS=20 SCRIPT_REASON=5", 8, "tdmbrec: writing the file failed\n"},
        {"torn", "SCRIPT_STALL=99999999 TDMBREC_PATIENCE=1", 8, " buffers (0x80001011)\n"},
        {"whole", "SCRIPT_FAIL=stop TDMBREC_PATIENCE=1", 8, "does not finish the file ("},
        {"empty", "SCRIPT_BUFFERS=20 SCRIPT_REASON=4", 14, "the file could not be opened\n"},
        {"no_stsz", "", 8, "no picture: track 1: table stsz is missing\n"},
        {"no_stts", "", 0, "may not play everywhere: track 1: table stts is missing"},
        {"whole", "SCRIPT_FAIL=later", 7, "refuses a buffer (0x80001001)\n"},
        {"whole", "SCRIPT_BUFFERS=20 SCRIPT_REASON=5", 15, "tdmbrec: writing the file failed\n"},
    };
    shell("sed s/stsz/xxxx/ whole > no_stsz; sed s/stts/xxxx/ whole > no_stts; "
          "head -c 36 whole > empty");
    for (const auto &[file, environment, status, fault] : cases) {
        SCOPED_TRACE(std::string(file) + " " + environment);
        const std::string setting = SCRIPTED " SCRIPT_FILE=" + std::string(file) + " ";
        const command_result result =
            shell("rm -rf b.mp4*; " + setting + environment + " " RECORD SAMPLE "-o b.mp4 --json");
        EXPECT_EQ(result.status, status);
        EXPECT_TRUE(contains(result.err, fault)) << result.err;
        const bool is_kept = status == 8;
        EXPECT_EQ(contains(result.err, ") is kept as " LEFT), is_kept) << result.err;
        EXPECT_EQ(contains(result.out, "\"kept\": \"" LEFT "\""), is_kept) << result.out;
        EXPECT_EQ(contains(result.out, "\"output\": null"), is_kept || status == 14) << result.out;
        const std::string place = is_kept ? LEFT : "b.mp4";
        EXPECT_EQ(shell("cmp " + std::string(file) + " " + place).status == 0, status != 14);
        EXPECT_EQ(names().count(FOLDER), is_kept ? 1u : 0u);
    }
}

TEST_F(KeptRecording, SurvivesChangesOfTheStorage)
{
    make_noise();
    const struct {
        const char *size; // of the file system
        const char *script;
        int status;
        const char *sentence;
        bool is_left; // the file with media data, in the folder
    } cases[] = {
        {"120m", UNDER_WAY "kill -9 $p; wait $p", 137, "", true},
        {"120m",
         UNDER_WAY "kill -STOP $p; kill -TERM $p; kill -HUP $p; "
                   "kill -CONT $p; wait $p; [ $? -gt 128 ]",
         0, "tdmbrec: aborted; ", true},
        {"120m", UNDER_WAY "rm " LEFT "; wait $p", 5, LEFT " was deleted or moved\n", false},
        {"120m", UNDER_WAY "rm -r " FOLDER "; wait $p", 5,
         "tdmbrec: the recording is gone: the folder " FOLDER " was deleted\n", false},
        {"120m", UNDER_WAY "echo > b.mp4; kill -TERM $p; wait $p", 8,
         "cannot take the name b.mp4: File exists\ntdmbrec: the finished file (", true},
        {"120m", "ulimit -f 4000; " RECORD SLOW "--json", 8,
         "failed: it has reached the shell's limit for files (ulimit -f)\n", true},
        // The recording is in /mnt/sdcard itself, and the folder holds a link to it.
        {"120m",
         "mount -t tmpfs none /mnt; mkdir /mnt/sdcard; ulimit -f 4000; " FORBID
         " unshare " RECORD SLOW,
         8, ") is kept as /mnt/sdcard/tdmbrec-", true},
        // The space is full before the component checks it again.
        // By then the cache holds more pictures than there is room for in the file's last block.
        {"65m", UNDER_WAY "sleep 0.3; kill -STOP $p; cat /dev/zero > full; kill -CONT $p; wait $p",
         8, "the free space is used up (the recorder leaves 52.4 MB)\ntdmbrec: the recorded data (",
         true},
        // The storage in use cannot be unmounted. Detached, it still gets the finished file.
        {"120m", UNDER_WAY "cd ..; umount d; umount -l d; kill -TERM $p; wait $p", 5,
         "d: target is busy.\ntdmbrec: b.mp4 is finished, but its directory was moved, or its "
         "storage unmounted\n",
         false},
        {"120m", UNDER_WAY "nsenter -t $p -m mount -o remount,bind,ro $PWD; kill -TERM $p; wait $p",
         8, "cannot take the name b.mp4: Read-only file system\ntdmbrec: the finished file (",
         true},
    };
    for (const auto &[size, script, status, sentence, is_left] : cases) {
        SCOPED_TRACE(script);
        const command_result result =
            shell("mkdir -p d; export IN=$PWD; unshare -rm sh -c 'mount --make-rshared / && "
                  "mount -t tmpfs -o size=" +
                  std::string(size) + " none d && cd d || exit; " + script +
                  "; s=$?; [ -s " LEFT " ]; echo $?; exit $s'");
        EXPECT_EQ(result.status, status);
        EXPECT_TRUE(contains(result.err, sentence)) << result.err;
        EXPECT_TRUE(result.out.ends_with(is_left ? "0\n" : "1\n")) << result.out;
    }
}

TEST_F(KeptRecording, IsReportedWhenLeftAndWhenUnderWay)
{
    make_noise();
    setenv("IN", ".", 1);
    const std::string now = "tdmbrec: b.mp4: is being recorded now, as " LEFT;
    const std::string left = "b.mp4: an earlier recording was not finished; the recorded data (";
    const command_result live =
        shell(UNDER_WAY RECORD SAMPLE "-f -o b.mp4; s=$?; " TDMBREC "info b.mp4; kill -9 $p; "
                                      "exit $s");
    EXPECT_EQ(live.status, 5);
    EXPECT_TRUE(contains(live.err, now + "\ntdmbrec: ")) << live.err;
    const std::string before = shell("cksum " LEFT).out;
    const command_result info = shell(TDMBREC "info b.mp4");
    EXPECT_EQ(info.status, 3);
    EXPECT_TRUE(contains(info.err, "tdmbrec: note: " + left)) << info.err;
    // Another recording to the same output has its own folder.
    const command_result next = shell(RECORD SAMPLE "-o b.mp4");
    EXPECT_EQ(next.status, 0);
    EXPECT_TRUE(contains(next.err, "tdmbrec: warning: " + left)) << next.err;
    EXPECT_EQ(shell("cksum " LEFT).out, before);
    EXPECT_EQ(shell("ulimit -f 900; " RECORD SAMPLE "-f -o b.mp4").status, 8);
    EXPECT_TRUE(fs::exists(directory / FOLDER "-2/recording.mp4"));
    // A file that ends before its media data is removed; a file of someone else is kept.
    shell("head -c 36 b.mp4 > " FOLDER "-2/recording.mp4; mkdir " FOLDER "-3 " FOLDER "-4; "
          "echo > " FOLDER "-4/mine; " RECORD SAMPLE "-f -o b.mp4");
    EXPECT_EQ(names(), (name_set{"b.mp4", FOLDER, FOLDER "-4", "noise.h264", "programme.h264",
                                 "programme.wav"}));
}

TEST_F(KeptRecording, IsNotRemovedNorAreFilesOfOthers)
{
    record_whole();
    const std::string left = "; the recorded data (", unreachable = ", which cannot be opened: ";
    const struct {
        std::string made; // before the command, which must change none of it
        std::string program, sentence;
    } cases[] = {
        {"mkdir other; cp torn other/copy.mp4; echo > other/v_stco.tmp; ln -s other " FOLDER,
         RECORD SAMPLE "-o b.mp4", ""},
        {"mkdir " FOLDER "; cp torn " FOLDER "/copy.mp4", RECORD SAMPLE "-o b.mp4",
         left + "580 kB) is kept as " FOLDER "/copy.mp4"},
        {"mkdir " FOLDER "; ln -s /gone/r.mp4 " LEFT, RECORD SAMPLE "-o b.mp4",
         "b.mp4: an earlier recording was not finished; the recorded data is kept as " LEFT +
             unreachable},
        {"mkdir " FOLDER "; { printf '\\177'; tail -c +2 torn; } > " LEFT, RECORD SAMPLE "-o b.mp4",
         left},
        {"mkdir b.mp4.part; cp torn b.mp4.part/movie.mp4; echo > b.mp4.part/stream.aac",
         TDMBREC "mux --video programme.h264 -o b.mp4", ""},
        // Another command may look at the same time.
        {"mkdir " FOLDER "; cp torn " LEFT, "flock -s " FOLDER " " TDMBREC "info b.mp4", left},
        {"mkdir " FOLDER "; cp torn " LEFT "; chmod 0 " FOLDER,
         "if [ $(id -u) = 0 ]; then drop='setpriv --inh-caps=-all --bounding-set=-all'; fi; "
         "$drop " TDMBREC "info b.mp4",
         unreachable},
    };
    for (const auto &[made, program, sentence] : cases) {
        SCOPED_TRACE(made);
        const std::string list = "chmod -f 700 " FOLDER "; find b.mp4.* other ! -type d "
                                 "-exec sh -c 'echo {}; cksum < {}' \\; 2> /dev/null";
        const std::string make = "rm -rf b.mp4* other; " + made + "; ";
        const std::string before = shell(make + list).out;
        shell(make);
        const command_result result = shell(program);
        EXPECT_TRUE(contains(result.err, sentence)) << result.err;
        EXPECT_FALSE(contains(result.err, "being recorded now")) << result.err;
        EXPECT_EQ(shell(list).out, before) << result.err;
    }
    // Output names that begin alike and are too long for a folder's name.
    const std::string info = TDMBREC "info " + std::string(241, 'n');
    shell("ulimit -f 300; " RECORD SAMPLE "-o " + std::string(241, 'n') + "1234567890");
    EXPECT_TRUE(contains(shell(info + "1234567890").err, left));
    EXPECT_FALSE(contains(shell(info + "1234567891").err, left));
}

// The record command; ffmpeg makes and judges the files.
#include "tests/client/command_test.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::string_literals;

// Each test begins with the sample recorded as a.mp4.
class RecordCommand : public CommandTest {
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        first = record(SAMPLE "-o a.mp4 --json");
        if (first.status == 6 || ffmpeg("-version").status != 0) {
            GTEST_SKIP() << "no ffmpeg here, or no storage: " << first.err;
        }
        ASSERT_EQ(first.status, 0) << first.err;
    }

    // Runs the command with these arguments and settings of the environment.
    command_result record(const std::string &arguments, const std::string &environment = "")
    {
        inputs = names();
        return shell(environment + " " RECORD + arguments);
    }

    // returns: the summary as JSON
    json summary(const std::string &arguments, const std::string &environment = "")
    {
        return json::parse(record(arguments + " --json", environment).out);
    }

    // returns: one line with the checksum of each decoded picture
    std::string pictures(const std::string &file)
    {
        const command_result result = ffmpeg("-i " + file +
                                             " -map 0:v -f framehash -hash crc32 - | "
                                             "grep -v '^#' | awk '{print $NF}'");
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    command_result first;
    name_set inputs; // the names in the directory before the command ran
};

TEST_F(RecordCommand, HoldsTheCompleteSampleIdenticallyEachTime)
{
    EXPECT_EQ(first.err, "");
    EXPECT_EQ(names(), (name_set{"a.mp4", "programme.h264", "programme.wav"}));
    EXPECT_EQ(pictures("a.mp4"), pictures("programme.h264"));
    const json reported = json::parse(first.out);
    EXPECT_EQ(reported["ended"], "end of the programme");
    EXPECT_EQ(reported["bytes"], fs::file_size(directory / "a.mp4"));
    EXPECT_EQ(reported["video"]["frames"], 300);
    EXPECT_EQ(reported["audio"]["frames"], 469);
    ASSERT_EQ(record(SAMPLE "-o b.mp4 --card").status, 0);
    EXPECT_EQ(shell("cmp a.mp4 b.mp4").status, 0);
    EXPECT_EQ(record(SAMPLE "-o b.mp4 -f").status, 0);
    EXPECT_EQ(names(), inputs);
}

TEST_F(RecordCommand, HoldsTheSameVideoFromEveryContainerAndSurvivesDamage)
{
    const std::string video = pictures("a.mp4");
    for (const std::string form :
         {"-c:a mp2 -f mpegts in.ts", "-c:a aac in.mp4", "-c:a pcm_s16le in.mkv"}) {
        ASSERT_EQ(ffmpeg(TIMED_SAMPLE "-i programme.wav -c:v copy " + form).status, 0);
        const std::string name = form.substr(form.rfind("in."));
        const command_result result = record(name + " -o out.mp4 -f");
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "") << name;
        EXPECT_EQ(pictures("out.mp4"), video) << name;
        EXPECT_TRUE(contains(result.out, "300 frames")) << result.out;
        EXPECT_TRUE(contains(result.out, "469 frames")) << result.out;

        const uintmax_t size = fs::file_size(directory / name);
        shell("head -c " + std::to_string(size / 2 | 1) + " " + name + " > cut");
        const json cut = summary("cut -o out.mp4 -f");
        EXPECT_EQ(cut["exit_status"], 3) << name << cut;
        if (name != "in.mp4") { // unreadable without its movie box
            const int pictures =
                std::stoi(shell("ffprobe -v quiet -select_streams v -count_packets "
                                "-show_entries stream=nb_read_packets -of "
                                "default=nw=1:nk=1 cut")
                              .out);
            EXPECT_GE(cut["video"]["frames"], pictures - 1) << name; // the last one may be cut
        }
        for (unsigned round = 0; round < 12; round++) {
            fs::copy_file(directory / name, directory / "bad",
                          fs::copy_options::overwrite_existing);
            std::fstream bad(directory / "bad", std::ios::in | std::ios::out | std::ios::binary);
            for (uintmax_t at = round * 7; at < size; at += 1009) {
                bad.seekp(static_cast<std::streamoff>(at));
                bad.put(static_cast<char>(at * 31 + round));
            }
            bad.close();
            if (round % 3 == 0) {
                fs::resize_file(directory / "bad", size * (1 + round) / 14);
            }
            const int status = record("bad -o out.mp4 -f").status;
            EXPECT_TRUE(status == 0 || status == 3 || status == 4) << name << round << status;
        }
    }
}

TEST_F(RecordCommand, JoinsLateAudioAndBeginsAndEndsAtACut)
{
    const std::string to_ts = "-i programme.wav -c:v copy -c:a mp2 -f mpegts ";
    ASSERT_EQ(ffmpeg(TIMED_SAMPLE "-itsoffset 2 " + to_ts + "late.ts").status, 0);
    ASSERT_EQ(ffmpeg(TIMED_SAMPLE + to_ts + "one.ts").status, 0);
    // Two seconds of silence precede it: 94 frames more than the sample alone.
    EXPECT_EQ(summary("late.ts -o late.mp4")["audio"]["frames"], 563);

    shell("tail -c +56401 one.ts > cut.ts");
    // Cut within a group of pictures, it begins with the next IDR picture.
    const int frames = summary("cut.ts -o cut.mp4")["video"]["frames"];
    EXPECT_EQ(frames % 30, 0);
    EXPECT_LT(frames, 300);
    // The programme ends where its sound is cut.
    shell("head -c 1000000 programme.wav > cut.wav");
    const json cut = summary("--video programme.h264 --audio cut.wav -o end.mp4");
    EXPECT_EQ(cut["exit_status"], 3);
    EXPECT_NEAR(cut["duration_seconds"].get<double>(), 5.2, 0.1);
}

TEST_F(RecordCommand, TreatsOneOtherParameterSetAsDamageAndTwoAsAChange)
{
    std::ifstream file(directory / "programme.h264", std::ios::binary);
    const std::string whole(std::istreambuf_iterator<char>(file), {});
    const auto mux = [this](const std::string &stream) {
        std::ofstream(directory / "bent.h264", std::ios::binary) << stream;
        return shell(TDMBREC "mux -f --video bent.h264 -o x");
    };
    size_t begin = 0, end = 0;
    for (int set = 0; (begin = whole.find("\0\0\1\x67"s, end)) != std::string::npos; set++) {
        end = whole.find("\0\0\1\x65"s, begin);
        for (size_t at = begin + 3; at < end && set % 5 == 0; at++) {
            if (whole.compare(at, 4, "\0\0\0\1"s) == 0) {
                at += 5; // the picture set
            }
            std::string bent = whole;
            bent[at] = static_cast<char>(bent[at] ^ 0x10);
            const command_result result = mux(bent);
            EXPECT_EQ(result.status, 0) << at << result.err;
            EXPECT_TRUE(contains(result.out, "300 pictures") ||
                        (set == 0 && contains(result.out, "270 pictures")))
                << at << result.out;
        }
    }
    std::string partition = whole; // of a picture that is no IDR picture
    partition[whole.find("\0\0\1\x41"s) + 3] = '\x42';
    EXPECT_TRUE(contains(mux(partition).out, "299 pictures"));

    ffmpeg("-i programme.h264 -vf scale=160:-2 -c:v libx264 -g 60 -bf 0 other.h264");
    const command_result changed = shell("cat programme.h264 other.h264 > bent.h264; " RECORD
                                         "--video bent.h264 --audio programme.wav -f -o x");
    EXPECT_EQ(changed.status, 4);
    EXPECT_TRUE(contains(changed.err, "changes its parameter sets at 10.00 s; ")) << changed.err;
    EXPECT_TRUE(contains(changed.out, "300 frames")) << changed.out;
    ffmpeg("-i other.h264 -c copy -frames:v 30 few.h264"); // with one IDR picture
    EXPECT_EQ(shell("cat programme.h264 few.h264 > bent.h264; " RECORD
                    "--video bent.h264 --audio programme.wav -f -o x")
                  .status,
              4);
}

TEST_F(RecordCommand, LeavesAnIgnoredSignalIgnoredAndClosedStreamsAlone)
{
    const command_result nohup =
        shell("(trap '' HUP; exec " RECORD SAMPLE "--realtime -o b.mp4) & " AWAIT_OUTPUT(
            "b.mp4.recording") "kill -HUP $!; kill -TERM $!; wait $!");
    EXPECT_EQ(nohup.status, 0) << nohup.err;
    EXPECT_TRUE(contains(nohup.out, "Ended  stopped by the user")) << nohup.out;
    // Messages do not go into a file that has the number of a closed stream.
    EXPECT_EQ(shell(RECORD SAMPLE "-v -v -o c.mp4 <&- >&- 2>&-").status, 5);
    EXPECT_EQ(shell("cmp a.mp4 c.mp4").status, 0);
    EXPECT_EQ(shell("{ sleep 0.2; " RECORD SAMPLE "-v -v -f -o c.mp4 --json; echo $? > code; } 2>&1"
                    "| true; cmp a.mp4 c.mp4 && grep 5 code")
                  .status,
              0);
}

TEST_F(RecordCommand, IsFinishedAtTheFirstSignalAndAbortedAtTheSecond)
{
    const std::string background = RECORD SAMPLE "--realtime -f -o a.mp4 ";
    const command_result once =
        shell(background +
              "--json & " AWAIT_OUTPUT(".") "kill -TERM $!; sleep 0.05; kill -TERM $!; wait $!");
    EXPECT_EQ(once.status, 0) << once.err;
    EXPECT_EQ(json::parse(once.out)["ended"], "stopped by the user");
    EXPECT_LT(json::parse(once.out)["video"]["frames"], 300);
    fs::remove(directory / "a.mp4");

    // Suspended, the process receives both signals before it can finish.
    const command_result twice =
        shell(background + "& " AWAIT_OUTPUT(".") "kill -STOP $!; kill -TERM $!; kill -HUP $!; "
                                                  "kill -CONT $!; wait $!");
    EXPECT_TRUE(twice.status == 143 || twice.status == 129) << twice.status;
    EXPECT_TRUE(contains(twice.err, "aborted")) << twice.err;
    EXPECT_EQ(names(), kSampleAlone);
}

TEST_F(RecordCommand, EndsWithTheReasonForWhichTheComponentStopped)
{
    const std::pair<int, std::string> reasons[] = {
        {0, "the storage is not usable"},          {2, "the free space is used up"},
        {4, "the file could not be opened"},       {5, "writing the file failed"},
        {6, "the file has passed its size limit"}, {7, "the component was destroyed"}};
    for (const auto &[reason, ended] : reasons) {
        const json reported =
            summary(SAMPLE "-o b.mp4",
                    SCRIPTED " SCRIPT_BUFFERS=20 SCRIPT_REASON=" + std::to_string(reason));
        EXPECT_EQ(reported["exit_status"], 10 + reason);
        EXPECT_EQ(reported["stop_reason"], reason);
        EXPECT_EQ(reported["ended"].get<std::string>().substr(0, ended.size()), ended);
        EXPECT_TRUE(reported["output"].is_null());
        EXPECT_EQ(names(), inputs);
    }
    // The first component makes no file.
    for (const char *const environment :
         {SCRIPTED, SCRIPTED " SCRIPT_FAIL=init", SCRIPTED " SCRIPT_FAIL=start",
          SCRIPTED " SCRIPT_FAIL=empty", SCRIPTED " SCRIPT_FAIL=later",
          "TDMBREC_COMPONENT_PATH=/nowhere.so"}) {
        const command_result result = record(SAMPLE "-o b.mp4", environment);
        EXPECT_EQ(result.status, 7) << environment << result.err;
        EXPECT_EQ(contains(result.err, "/nowhere.so"), contains(environment, "/nowhere.so"));
        EXPECT_EQ(names(), inputs);
    }
}

TEST_F(RecordCommand, CountsWhatTheComponentDidNotRecord)
{
    ffmpeg("-i programme.h264 -c copy -frames:v 100 few.h264");
    ASSERT_EQ(record("--video few.h264 --audio programme.wav -o few.mp4").status, 0);
    const json reported = summary(SAMPLE "-o b.mp4", "SCRIPT_FILE=few.mp4 " SCRIPTED);
    EXPECT_EQ(reported["verdict"], "damaged");
    ASSERT_EQ(reported["losses"].size(), 1u);
    EXPECT_EQ(reported["losses"][0]["units"], 200);
    EXPECT_NEAR(reported["lost_seconds"]["video"].get<double>(), 200.0 / 30, 0.01);
}

TEST_F(RecordCommand, ShowsProgressWhileTheComponentTakesLong)
{
    const command_result result = shell("export SCRIPT_STALL=4000 " SCRIPTED
                                        "; script -qec '" RECORD SAMPLE "-o b.mp4' typescript");
    size_t shown = 0;
    for (size_t at = 0; (at = result.out.find("Recording  ", at)) != std::string::npos; at++) {
        shown++;
    }
    EXPECT_GE(shown, 4u) << result.out; // every half second; half of that on a busy machine
}

TEST_F(RecordCommand, SendsRunsOfPicturesAndSoundLikeTheBroadcastPlayer)
{
    record(SAMPLE "-o b.mp4 --frame-rate 25 --card", "SCRIPT_LOG=log " SCRIPTED);
    std::ifstream log(directory / "log");
    std::string calls;
    std::map<std::string, std::string> buffers; // port by port
    std::map<std::string, long> last;
    for (std::string line, port; std::getline(log, line);) {
        port = line.substr(0, 5);
        if (port != "video" && port != "audio") {
            calls += line + "\n";
            continue;
        }
        const long time_us = std::stol(line.substr(6));
        EXPECT_GE(time_us, last[port]) << line;
        last[port] = time_us;
        buffers[port] += line + "\n";
        // The sound ends first.
        EXPECT_TRUE(port == "video" || std::abs(last["video"] - time_us) < 1'500'000) << line;
    }
    if (contains(calls, "recording.mp4")) { // else /mnt/sdcard itself is used
        std::string expected = "state 2\nstate 3\npath /mnt/sdcard/tflash/recording.mp4\n"
                               "rate 48000\nstart\nstop\nstate 2\nstate 1\n";
        for (int i = 0; i < 32 + 64; i++) {
            expected += "free\n";
        }
        EXPECT_EQ(calls, expected + "gone\n");
    }
    EXPECT_EQ(std::count(buffers["video"].begin(), buffers["video"].end(), '\n'), 1 + 300);
    EXPECT_EQ(std::count(buffers["audio"].begin(), buffers["audio"].end(), '\n'), 469);
    // A delimiter one picture early, then pictures 40 ms apart; the first begins with its sequence
    // set.
    EXPECT_TRUE(buffers["video"].starts_with("video 1000000 6 0 9\nvideo 1040000 "));
    EXPECT_TRUE(contains(buffers["video"].substr(0, 60), " 0 103\nvideo 1080000 "));
    EXPECT_TRUE(buffers["audio"].starts_with("audio 1061333 4096 "));
    EXPECT_TRUE(contains(buffers["audio"].substr(0, 60), "\naudio 1082666 4096 "));
}

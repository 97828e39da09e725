// Recordings in several files, of limited length and without sound; ffmpeg judges the files.
#include "tests/client/command_test.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

using nlohmann::json;

class SplitRecording : public CommandTest {
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        if (record(SAMPLE "-o whole.mp4").status == 6 || ffmpeg("-version").status != 0) {
            GTEST_SKIP() << "no ffmpeg here, or no storage";
        }
    }

    command_result record(const std::string &arguments)
    {
        return shell(RECORD + arguments);
    }

    json summary(const std::string &arguments)
    {
        const command_result result = record(arguments + " --json");
        EXPECT_EQ(result.status, 0) << result.err;
        return json::parse(result.out);
    }

    // returns: one line for each frame of a track, with its checksum
    std::string frames(const std::string &file, const std::string &track)
    {
        return ffmpeg("-i " + file + " -map 0:" + track +
                      " -c copy -f framehash -hash crc32 - | grep -v '^#' | awk '{print $NF}'")
            .out;
    }

    // returns: the lines of the files of a summary, in their order
    std::string all_frames(const json &reported, const std::string &track)
    {
        std::string lines;
        for (const json &file : reported["files"]) {
            lines += frames(file["output"], track);
        }
        return lines;
    }

    // returns: the left channel
    std::vector<int16_t> sound(const std::string &file)
    {
        const std::string raw = ffmpeg("-i " + file + " -af pan=mono\\|c0=c0 -f s16le -").out;
        std::vector<int16_t> samples(raw.size() / 2);
        std::copy_n(raw.data(), samples.size() * 2, reinterpret_cast<char *>(samples.data()));
        return samples;
    }
};

// returns: the place in the whole of what the part holds from its 6000th sample on, as the place of
//          the part's beginning; the polarity of the coded sound is inverted
static int place_of(const std::vector<int16_t> &part, const std::vector<int16_t> &whole, int near)
{
    int place = -1;
    int64_t most = 0;
    for (int at = std::max(near - 1100, -6000); at <= near + 1100; at++) {
        int64_t sum = 0;
        for (int i = 6000; i < 60000; i++) {
            sum -= int64_t{part.at(static_cast<size_t>(i))} * whole.at(static_cast<size_t>(at + i));
        }
        if (sum > most) {
            most = sum;
            place = at;
        }
    }
    return place;
}

TEST_F(SplitRecording, HoldsEachFrameOfOneLongRecordingOnceAndInStep)
{
    shell("touch part-003.mp4");
    const json reported = summary(SAMPLE "-o part.mp4 --split-every 2.5");
    std::vector<std::string> outputs;
    for (const json &file : reported["files"]) {
        outputs.push_back(file["output"]);
    }
    EXPECT_EQ(outputs, (std::vector<std::string>{"part.mp4", "part-002.mp4", "part-004.mp4",
                                                 "part-005.mp4"}));
    EXPECT_EQ(all_frames(reported, "v"), frames("whole.mp4", "v"));
    EXPECT_EQ(all_frames(reported, "a"), frames("whole.mp4", "a"));
    EXPECT_EQ(reported["video"]["frames"], 300);

    const std::vector<int16_t> original = sound("programme.wav");
    for (const json &file : reported["files"]) {
        const double begin_s = file["begin_seconds"];
        const std::vector<int16_t> part = sound(file["output"]);
        const int begin = static_cast<int>(std::lround(begin_s * 48000));
        EXPECT_NEAR(place_of(part, original, begin), begin, 2) << file;
        // The second picture is in step with the sound, whatever the first one.
        std::istringstream times(
            shell("ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv=p=0 " +
                  std::string(file["output"]))
                .out);
        std::string second;
        std::getline(times, second);
        std::getline(times, second);
        const double picture = (begin_s + std::stod(second)) * 30;
        EXPECT_NEAR(picture, std::round(picture), 0.04) << file; // of 33 ms
    }
}

TEST_F(SplitRecording, ContinuesInAnotherFileWhereTheParameterSetsChange)
{
    ASSERT_EQ(ffmpeg("-f lavfi -i testsrc=s=176x144:r=30:d=4 -pix_fmt yuv420p -c:v libx264 "
                     "-profile:v baseline -g 30 -bf 0 b.h264")
                  .status,
              0);
    shell("cat programme.h264 b.h264 > both.h264");
    const std::string inputs = "--video both.h264 --audio programme.wav -o ";
    const command_result refused = record(inputs + "r.mp4");
    EXPECT_EQ(refused.status, 4);
    EXPECT_TRUE(contains(refused.err, "changes its parameter sets at 10.00 s")) << refused.err;
    const json reported = summary(inputs + "'%Y-part.mp4' --split");
    ASSERT_EQ(reported["files"].size(), 2u);
    const std::string next = reported["files"][1]["output"];
    EXPECT_TRUE(next.starts_with("20") && next.ends_with("-part-002.mp4")) << next;
    EXPECT_EQ(frames(reported["files"][0]["output"], "v"), frames("whole.mp4", "v"));
    EXPECT_EQ(reported["files"][1]["video"]["frames"], 120);
    EXPECT_EQ(ffmpeg("-i " + next + " -f null -").err, "");
    EXPECT_TRUE(contains(shell("ffprobe -v error -show_entries stream=width " + next).out, "176"));
}

TEST_F(SplitRecording, EndsAtTheDurationAndNeedsNoSound)
{
    const json brief = summary(SAMPLE "-o brief.mp4 --duration 0:02.5");
    EXPECT_EQ(brief["ended"], "the duration is over");
    EXPECT_EQ(brief["video"]["frames"], 75);
    EXPECT_EQ(brief["audio"]["frames"], 118);
    EXPECT_TRUE(frames("whole.mp4", "a").starts_with(frames("brief.mp4", "a")));
    const json silent = summary("--video programme.h264 --no-audio -o silent.mp4 --split-every 5");
    EXPECT_EQ(all_frames(silent, "v"), frames("whole.mp4", "v"));
    // The stop mostly comes while the third file is being prepared.
    const command_result stopped = shell(
        RECORD SAMPLE "-o stop.mp4 --split-every 1 & for i in $(seq 999); do [ -e stop-002.mp4 "
                      "] && break; sleep 0.01; done; kill -TERM $!; wait $!");
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    EXPECT_TRUE(contains(shell(TDMBREC "info silent.mp4").out, "  State    complete\n"));
    for (const char *const wrong : {"0", "-1", "1:60", "1h2h", "5x", "1e9", "nan", "1:2:3:4", ""}) {
        EXPECT_EQ(record(SAMPLE "-o x.mp4 --duration '" + std::string(wrong) + "'").status, 2);
    }
}

TEST_F(SplitRecording, WaitsForALiveInputToComeBack)
{
    ASSERT_EQ(ffmpeg(TIMED_SAMPLE "-i programme.wav -c:v copy -c:a mp2 -f mpegts in.ts").status, 0);
    const command_result result =
        shell("mkfifo f; { cat in.ts > f; sleep 1; cat in.ts > f; sleep 1; head -c 200001 in.ts > "
              "f; } & " RECORD "f -o part.mp4 --reconnect 3 --duration 23 --json");
    EXPECT_EQ(result.status, 3) << result.err; // the third time, it breaks off
    EXPECT_TRUE(contains(result.err, "the input ended, and came back after ")) << result.err;
    const json reported = json::parse(result.out);
    ASSERT_EQ(reported["files"].size(), 3u);
    for (const json &file : reported["files"]) {
        const bool is_whole = file["output"] != "part-003.mp4";
        EXPECT_EQ(file["verdict"], is_whole ? "complete" : "damaged") << file;
        EXPECT_TRUE(is_whole ? file["video"]["frames"] == 300 : file["video"]["frames"] < 90)
            << file;
    }
    EXPECT_EQ(frames("part.mp4", "a"), frames("part-002.mp4", "a"));
    EXPECT_GE(reported["files"][1]["begin_seconds"], 10);
    EXPECT_EQ(record("- -o x.mp4 --reconnect 3").status, 2);
}

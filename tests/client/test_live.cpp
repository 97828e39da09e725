// Sources that are read while they are made.
#include "client/input/live_source.h"
#include "client/start_time.h"
#include "tests/client/command_test.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

using nlohmann::json;

static constexpr size_t kPacketBytes = 188;

class LiveInput : public CommandTest {
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        const command_result made =
            ffmpeg(TIMED_SAMPLE "-i programme.wav -c:v copy -c:a mp2 -f mpegts in.ts");
        if (made.status != 0 || shell(RECORD SAMPLE "-o file.mp4").status == 6) {
            GTEST_SKIP() << "no ffmpeg here, or no storage: " << made.err;
        }
        ffmpeg("-i in.ts -c:v copy -c:a pcm_s16le in.mkv");
        ffmpeg("-i programme.wav -f s16le sound.pcm");
        shell("mkfifo one two");
    }

    // The content and the times of all frames.
    std::string frames(const std::string &name)
    {
        return ffmpeg("-i " + name + " -map 0 -c copy -f framemd5 -").out;
    }

    json summary(const std::string &line)
    {
        const command_result result = shell(line);
        return result.out.empty() ? json{{"error", result.err}} : json::parse(result.out);
    }
};

TEST_F(LiveInput, GivesTheFramesThatTheFileGives)
{
    static constexpr char kPair[] = RECORD SAMPLE;
    static const struct {
        const char *as_file;
        const char *live;
    } cases[] = {
        {RECORD "in.ts", "cat in.ts | " RECORD "-"},
        {RECORD "in.mkv", "cat in.mkv > one & " RECORD "one"},
        {kPair, RECORD "--video <(cat programme.h264) --audio <(cat programme.wav)"},
        // One writer opens and fills one after the other, also beyond what a pipe holds.
        {kPair,
         "(cat programme.h264 > one; cat programme.wav > two) & " RECORD "--video one --audio two"},
        {kPair, "(exec 5> one 6> two; cat programme.wav >&6; cat programme.h264 >&5) & " RECORD
                "--video one --audio two"},
        {kPair, RECORD "--video file:programme.h264 --audio sound.pcm --pcm 48000"},
        {kPair, "cat programme.h264 | " RECORD "--video - --audio programme.wav"},
    };
    for (const auto &[as_file, live] : cases) {
        ASSERT_EQ(shell(std::string(as_file) + " -f -o file.mp4").status, 0) << as_file;
        const std::string line = std::string(live) + " -f -o live.mp4";
        const command_result result = shell("timeout 60 bash -c '" + line + "'");
        EXPECT_EQ(result.status, 0) << live << result.err;
        EXPECT_TRUE(contains(result.out, "Ended  end of the programme")) << live << result.out;
        EXPECT_EQ(frames("file.mp4"), frames("live.mp4")) << live;
    }
}

TEST_F(LiveInput, TakesWhatTheNetworkBrings)
{
    for (const std::string url : {"udp://127.0.0.1:", "rtp://127.0.0.1:"}) {
        const std::string address = url + std::to_string(20000 + getpid() % 20000);
        const std::string format = url.starts_with("rtp") ? "rtp_mpegts " : "mpegts ";
        const json got = summary(RECORD + address + " --json -f -o live.mp4 & sleep 1; ffmpeg " +
                                 "-nostdin -v error -re -i in.ts -t 3 -c copy -f " + format +
                                 address + "; kill -TERM $!; wait $!");
        EXPECT_EQ(got["exit_status"], 0) << got;
        EXPECT_EQ(got["ended"], "stopped by the user") << got;
        EXPECT_GE(got["video"]["frames"], 85) << got;
        EXPECT_LE(got["video"]["frames"], 90) << got;
        EXPECT_GE(got["audio"]["frames"], 120) << got;
    }
}

TEST_F(LiveInput, EndsWithTheSourceAndBreaksOffWhereTheFormatShowsIt)
{
    static const struct {
        const char *line;
        int status;
        const char *sentence;
    } cases[] = {
        {"head -c 601600 in.ts | " RECORD "-", 0, ""},
        {"head -c 601700 in.ts | " RECORD "-", 3, "breaks off (its last packet is incomplete)"},
        {"head -c 900000 in.mkv | " RECORD "-", 3, "breaks off"},
        {"head -c 900000 programme.wav > one & " RECORD "--video programme.h264 --audio one", 3,
         "one: breaks off (the file is shorter than its header says)"},
        {": | " RECORD "-", 3, "/dev/stdin: is empty"},
        {RECORD "tcp://127.0.0.1:1", 3, "tcp://127.0.0.1:1: Connection refused"},
        {RECORD "in.ts --start-at 25:00", 2, "no such time as \"25:00\""},
        {RECORD "in.ts --pcm 48000", 2, "--pcm needs --audio"},
    };
    for (const auto &[line, status, sentence] : cases) {
        const command_result result = shell(std::string(line) + " -f -o live.mp4");
        EXPECT_EQ(result.status, status) << line << result.err;
        EXPECT_TRUE(contains(result.err, sentence)) << line << result.err;
    }
}

TEST_F(LiveInput, IsFinishedAtOnceWhenItsSourceHangs)
{
    const command_result result =
        shell("(head -c 300000 in.ts; exec sleep 30) > one & script -qec 'stty cols 52; timeout "
              "--foreground -s TERM 5 " RECORD "one --json -f -o live.mp4' typescript; kill $!");
    const size_t begin = result.out.find("{\r\n");
    ASSERT_NE(begin, std::string::npos) << result.out;
    const json got = json::parse(result.out.substr(begin));
    EXPECT_EQ(got["ended"], "stopped by the user");
    EXPECT_LT(got["elapsed_seconds"], 6);
    EXPECT_TRUE(contains(result.out, "nothing arrives for 2 s")) << result.out;
    std::string shown = result.out.substr(0, begin);
    for (size_t at = 0; (at = shown.find("\r\033[K")) != std::string::npos;
         shown.erase(0, at + 4)) {
        EXPECT_LT(at, 52u) << shown.substr(0, at);
    }
    // All pictures but the last, which may not be complete.
    shell("head -c 300000 in.ts > part.ts; " RECORD "part.ts -f -o file.mp4");
    const std::string all = shell("ffprobe -v error -select_streams v -show_entries packet=size "
                                  "-of csv=p=0 file.mp4")
                                .out;
    const std::string got_sizes = shell("ffprobe -v error -select_streams v -show_entries "
                                        "packet=size -of csv=p=0 live.mp4")
                                      .out;
    EXPECT_TRUE(all.starts_with(got_sizes)) << got_sizes;
    EXPECT_EQ(std::count(got_sizes.begin(), got_sizes.end(), '\n') + 1,
              std::count(all.begin(), all.end(), '\n'));
    const command_result silent =
        shell("(head -c 300000 in.ts; exec sleep 30) > one & timeout --foreground -s TERM 3 " RECORD
              "one --no-audio -o live%%.mp4; kill $!");
    EXPECT_TRUE(contains(silent.out, "stopped by the user")) << silent.err;
    EXPECT_TRUE(contains(silent.out, "live%.mp4: 0:")) << silent.out;
    // Before the first picture there is nothing to finish.
    const command_result none =
        shell("sleep 30 > one & timeout --foreground -s TERM 2 " RECORD "one -o none.mp4; kill $!");
    EXPECT_TRUE(contains(none.err, "stopped before the first picture")) << none.err;
}

TEST_F(LiveInput, DoesNotStopForAStreamThatStaysAway)
{
    ASSERT_EQ(ffmpeg("-stream_loop 3 -i in.ts -c copy long.ts").status, 0);
    const std::string whole = take_text(directory / "long.ts");
    for (const int stream : {0, 1}) {
        std::ofstream out(directory / "gap.ts", std::ios::binary);
        const size_t begin = whole.size() / 4, end = 3 * whole.size() / 4; // 20 s
        for (size_t at = 0; at + kPacketBytes <= whole.size(); at += kPacketBytes) {
            const bool is_of_stream = (whole[at + 1] & 0x1F) == 1 && whole[at + 2] == stream;
            if (!is_of_stream || at < begin || at > end) {
                out.write(&whole[at], kPacketBytes);
            }
        }
        out.close();
        ASSERT_EQ(shell(RECORD "gap.ts -f -o file.mp4").status, 0);
        ASSERT_EQ(shell("cat gap.ts | " RECORD "- -f -o live.mp4").status, 0);
        EXPECT_EQ(frames("file.mp4"), frames("live.mp4")) << stream;

        const std::shared_ptr<live_source> source = live_source_open(directory / "one", {});
        std::thread writer([this] { shell("cat gap.ts > one"); });
        live_source_begin(*source, 0);
        const AVMediaType kind = stream == 0 ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
        source->video.stream = source->format->streams[0];
        source->audio.stream = source->format->streams[1];
        source->begun = true;
        bool is_late = false;
        while (live_source_read(*source, kind, is_late)) {
        }
        EXPECT_TRUE(is_late);
        const live_queue &other = stream == 0 ? source->audio : source->video;
        EXPECT_NEAR(static_cast<double>(other.span_us), 3e6, 1e5);
        while (source->io.stops = false,
               live_source_read(*source, AVMEDIA_TYPE_VIDEO, is_late) ||
                   live_source_read(*source, AVMEDIA_TYPE_AUDIO, is_late)) {
        }
        writer.join();
    }
}

TEST_F(LiveInput, BeginsWithWhatIsSentAtTheStart)
{
    const json got = summary("(cat in.ts; sleep 3; cat in.ts) | " RECORD "- --json -f -o live.mp4 "
                             "--start-at $(date -d '+2 sec' +%H:%M:%S)");
    EXPECT_EQ(got["exit_status"], 0) << got;
    EXPECT_GE(got["video"]["frames"], 270) << got;
    EXPECT_LE(got["video"]["frames"], 300) << got;
}

TEST(StartTime, IsTheNextSuchMoment)
{
    setenv("TZ", "UTC", 1);
    using wall = std::chrono::system_clock;
    static constexpr time_t kNow = 1'772'280'000; // 2026-02-28 12:00:00
    static const struct {
        const char *text;
        long after_s; // 0: refused
    } cases[] = {
        {"12:00:01", 1},
        {"12:00", 86400},
        {"9:30", 77400},
        {"2026-03-01 00:00", 43200},
        {"2026-03-01T00:00:05", 43205},
        {"2026-02-28 12:00", 0},
        {"2026-02-29 12:00", 0},
        {"24:00", 0},
        {"12:60", 0},
        {"12:30 ", 0},
        {"", 0},
        {"+1:30", 0},
    };
    for (const auto &[text, after_s] : cases) {
        wall::time_point moment = wall::from_time_t(kNow);
        const std::string mistake = start_time_read(text, moment, moment);
        EXPECT_EQ(mistake.empty(), after_s > 0) << text << mistake;
        EXPECT_EQ(wall::to_time_t(moment), kNow + after_s) << text;
    }
}

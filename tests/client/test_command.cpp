#include "tests/client/command_support.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>

// What cannot run here is reported as skipped.
#define SKIP_WITHOUT_STORAGE(result)                                                               \
    if ((result).status == 6) {                                                                    \
        GTEST_SKIP() << (result).err;                                                              \
    }
#define SKIP_WITHOUT_FFMPEG()                                                                      \
    if (ffmpeg("-version").status != 0) {                                                          \
        GTEST_SKIP() << "ffmpeg is not installed";                                                 \
    }

static bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

static std::vector<std::string> with(std::vector<std::string> names, const std::string &name)
{
    names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(command, answers_mistakes_with_its_own_code_and_touches_nothing)
{
    std::ofstream(directory / "kept.mp4") << "old";
    std::filesystem::create_directory(directory / "folder");
    const struct {
        const char *arguments;
        int status;
        const char *sentence;
    } cases[] = {
        {"", 2, "--output is required"},
        {"-o x.mp4", 2, "name one INPUT"},
        {"-o x.mp4 --video programme.h264", 2, "name one INPUT"},
        {"-o x.mp4 --no-such-option in", 2, "no-such-option"},
        {"-o x.mp4 --frame-rate many --video programme.h264 --audio programme.wav", 2,
         "1 to 240, not \"many\""},
        {"-o x.mp4 missing.ts", 3, "missing.ts: No such file"},
        {"-o x.mp4 folder", 3, "folder: is not a regular file"},
        {"-o x.mp4 /dev/zero", 3, "/dev/zero: is not a regular file"},
        {"-o x.mp4 --video programme.h264 --audio kept.mp4", 3, "kept.mp4: not readable as"},
        {"-o x.mp4 programme.wav", 3, "programme.wav: holds no video"},
        {"-o x.mp4 programme.h264", 3, "programme.h264: holds no audio"},
        {"-o kept.mp4 --video programme.h264 --audio programme.wav", 5, "exists already"},
        {"-o folder -f --video programme.h264 --audio programme.wav", 5, "not a regular file"},
        {"-o nowhere/x.mp4 --video programme.h264 --audio programme.wav", 5, "nowhere"},
        {"-o programme.wav -f --video programme.h264 --audio programme.wav", 5, "is an input"},
    };
    for (const auto &[arguments, status, sentence] : cases) {
        const command_result result = record(arguments);
        EXPECT_EQ(result.status, status) << arguments << "\n" << result.err;
        EXPECT_TRUE(contains(result.err, sentence)) << arguments << "\n" << result.err;
        EXPECT_EQ(result.out, "") << arguments;
        EXPECT_EQ(names_in(directory), inputs) << arguments;
    }
    EXPECT_EQ(std::filesystem::file_size(directory / "kept.mp4"), 3u);
}

TEST_F(command, records_the_sample_whole_and_the_same_each_time)
{
    SKIP_WITHOUT_FFMPEG();
    const command_result result = record(std::string(SAMPLE) + "-o a.mp4 --json");
    SKIP_WITHOUT_STORAGE(result);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(names_in(directory), with(inputs, "a.mp4"));
    EXPECT_EQ(pictures("a.mp4"), pictures("programme.h264"));

    const nlohmann::json summary = nlohmann::json::parse(result.out);
    EXPECT_EQ(summary["output"], "a.mp4");
    EXPECT_EQ(summary["ended"], "end of the programme");
    EXPECT_EQ(summary["stop_reason"], 1);
    EXPECT_EQ(summary["exit_status"], 0);
    EXPECT_EQ(summary["bytes"], std::filesystem::file_size(directory / "a.mp4"));
    EXPECT_EQ(summary["video"]["frames"], 300);
    EXPECT_EQ(summary["audio"]["frames"], 470); // the last one empties the encoder
    EXPECT_NEAR(summary["duration_seconds"].get<double>(), 10.0, 0.1);

    ASSERT_EQ(record(std::string(SAMPLE) + "-o b.mp4 --card").status, 0);
    EXPECT_EQ(run_shell(directory, "cmp a.mp4 b.mp4").status, 0);
    EXPECT_EQ(record(std::string(SAMPLE) + "-o b.mp4 -f").status, 0);
    EXPECT_EQ(names_in(directory), inputs);
}

TEST_F(command, records_the_same_video_from_every_container)
{
    SKIP_WITHOUT_FFMPEG();
    const command_result raw = record(std::string(SAMPLE) + "-o raw.mp4");
    SKIP_WITHOUT_STORAGE(raw);
    const std::string video = pictures("raw.mp4");
    const std::string sample =
        "-fflags +genpts -r 30 -i programme.h264 -i programme.wav -c:v copy ";
    const char *const forms[] = {"-c:a mp2 -f mpegts in.ts", "-c:a aac in.mp4",
                                 "-c:a pcm_s16le in.mkv"};
    for (const std::string form : forms) {
        ASSERT_EQ(ffmpeg(sample + form).status, 0);
        const std::string name = form.substr(form.rfind("in."));
        const command_result result = record(name + " -o out.mp4 -f");
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "") << name;
        EXPECT_EQ(pictures("out.mp4"), video) << name;
        EXPECT_TRUE(contains(result.out, "300 frames")) << result.out;
        EXPECT_TRUE(contains(result.out, "470 frames")) << result.out;
    }
}

TEST_F(command, names_what_it_cannot_record)
{
    SKIP_WITHOUT_FFMPEG();
    const std::string pattern = "-f lavfi -i testsrc2=s=320x240:d=1 -i programme.wav -t 1 ";
    const struct {
        const char *encoding;
        const char *name;
        const char *sentence;
    } cases[] = {
        {"-c:v libx264 -bf 2", "b.mp4", "b.mp4: its pictures are not in display order"},
        {"-an -c:v libx264 -bf 2", "b.h264", "b.h264: its pictures are not in display order"},
        {"-c:v mpeg4", "m.mkv", "m.mkv: its video is mpeg4"},
        {"-an -c:v libx264 -bf 0 -bsf:v filter_units=remove_types=7", "s.h264", "s.h264: "},
        {"-an -c:v libx264 -bf 0 -bsf:v filter_units=remove_types=5", "i.h264",
         "i.h264: holds no IDR picture"},
    };
    for (const auto &[encoding, name, sentence] : cases) {
        if (ffmpeg(pattern + encoding + " " + name).status != 0) {
            GTEST_SKIP() << "this ffmpeg encodes no " << name;
        }
        const std::string audio = contains(name, "h264") ? " --audio programme.wav" : "";
        const command_result result =
            record("--video " + std::string(name) +
                   (audio.empty() ? " --audio " + std::string(name) : audio) + " -o out.mp4");
        EXPECT_TRUE(result.status == 4 || result.status == 3) << result.err;
        EXPECT_TRUE(contains(result.err, sentence)) << result.err;
        EXPECT_EQ(names_in(directory), inputs);
    }
}

TEST_F(command, joins_late_audio_and_a_restarted_clock)
{
    SKIP_WITHOUT_FFMPEG();
    const std::string sample = "-fflags +genpts -r 30 -i programme.h264 ";
    const std::string to_ts = "-i programme.wav -c:v copy -c:a mp2 -f mpegts ";
    ASSERT_EQ(ffmpeg(sample + "-itsoffset 2 " + to_ts + "late.ts").status, 0);
    const command_result late = record("late.ts -o late.mp4 --json");
    SKIP_WITHOUT_STORAGE(late);
    // Two seconds of silence stand in front: 94 frames more than the sample alone.
    EXPECT_EQ(nlohmann::json::parse(late.out)["audio"]["frames"], 564);

    ASSERT_EQ(ffmpeg(sample + to_ts + "one.ts").status, 0);
    run_shell(directory, "cat one.ts one.ts > two.ts");
    const nlohmann::json twice = nlohmann::json::parse(record("two.ts -o two.mp4 --json").out);
    EXPECT_EQ(twice["video"]["frames"], 600);
    EXPECT_NEAR(twice["duration_seconds"].get<double>(), 20.0, 0.1);
    EXPECT_EQ(twice["warnings"].size(), 2u);

    // Cut off within a group of pictures, it begins with the next IDR picture.
    run_shell(directory, "tail -c +56401 one.ts > cut.ts");
    const nlohmann::json cut = nlohmann::json::parse(record("cut.ts -o cut.mp4 --json").out);
    EXPECT_EQ(cut["video"]["frames"].get<int>() % 30, 0);
    EXPECT_LT(cut["video"]["frames"].get<int>(), 300);
}

TEST_F(command, finishes_the_file_at_the_first_signal_and_gives_up_at_the_second)
{
    const std::string background =
        TDMBREC_COMMAND " record --video programme.h264 --audio programme.wav --realtime -o a.mp4 ";
    const command_result once =
        run_shell(directory, background + "--json & sleep 1; kill -TERM $!; wait $!");
    SKIP_WITHOUT_STORAGE(once);
    EXPECT_EQ(once.status, 0) << once.err;
    const nlohmann::json summary = nlohmann::json::parse(once.out);
    EXPECT_EQ(summary["ended"], "stopped by the user");
    EXPECT_LT(summary["video"]["frames"], 60);
    std::filesystem::remove(directory / "a.mp4");

    // Stopped in between, the process meets both signals before it can finish.
    const command_result twice =
        run_shell(directory, background + "& sleep 1; kill -STOP $!; kill -TERM $!; kill -HUP $!; "
                                          "kill -CONT $!; wait $!");
    EXPECT_TRUE(twice.status == 143 || twice.status == 129) << twice.status;
    EXPECT_TRUE(contains(twice.err, "given up")) << twice.err;
    EXPECT_EQ(names_in(directory), (std::vector<std::string>{"programme.h264", "programme.wav"}));
}

TEST_F(command, reports_why_the_component_stopped)
{
    const command_result first =
        record(std::string(SAMPLE) + "-o a.mp4", "TDMBREC_COMPONENT_PATH=" SCRIPTED_COMPONENT);
    SKIP_WITHOUT_STORAGE(first);
    // It made no file, and the command does not pretend that there is one.
    EXPECT_EQ(first.status, 7) << first.err;
    for (const int reason : {0, 2, 4, 5, 6, 7}) {
        const command_result result =
            record(std::string(SAMPLE) + "-o a.mp4 --json",
                   "SCRIPT_BUFFERS=20 SCRIPT_REASON=" + std::to_string(reason) +
                       " TDMBREC_COMPONENT_PATH=" SCRIPTED_COMPONENT);
        EXPECT_EQ(result.status, 10 + reason) << result.err;
        EXPECT_EQ(nlohmann::json::parse(result.out)["stop_reason"], reason);
        EXPECT_TRUE(nlohmann::json::parse(result.out)["output"].is_null());
        EXPECT_EQ(names_in(directory), inputs);
    }
    for (const char *const call : {"init", "start", "empty"}) {
        const command_result result = record(std::string(SAMPLE) + "-o a.mp4",
                                             "SCRIPT_FAIL=" + std::string(call) +
                                                 " TDMBREC_COMPONENT_PATH=" SCRIPTED_COMPONENT);
        EXPECT_EQ(result.status, 7) << call << result.err;
        EXPECT_EQ(names_in(directory), inputs);
    }
    const command_result missing =
        record(std::string(SAMPLE) + "-o a.mp4", "TDMBREC_COMPONENT_PATH=/nowhere.so");
    EXPECT_EQ(missing.status, 7);
    EXPECT_TRUE(contains(missing.err, "/nowhere.so")) << missing.err;
}

TEST_F(command, plays_the_broadcast_player_in_the_order_of_time)
{
    const command_result result =
        record(std::string(SAMPLE) + "-o a.mp4 --frame-rate 25 --card",
               "SCRIPT_LOG=log TDMBREC_COMPONENT_PATH=" SCRIPTED_COMPONENT);
    SKIP_WITHOUT_STORAGE(result);
    std::ifstream log(directory / "log");
    std::vector<std::string> calls;
    std::vector<std::string> buffers;
    long last = 0;
    for (std::string line; std::getline(log, line);) {
        std::istringstream words(line);
        std::string kind;
        long time_us = 0;
        words >> kind >> time_us;
        if (kind == "video" || kind == "audio") {
            EXPECT_GE(time_us, last) << line;
            last = time_us;
            buffers.push_back(line);
        } else {
            calls.push_back(line);
        }
    }
    std::vector<std::string> expected = {
        "state 2",    "state 3", "path /mnt/sdcard/tflash/recording.mp4",
        "rate 48000", "start",   "stop",
        "state 2",    "state 1"};
    expected.insert(expected.end(), 8, "free");
    expected.push_back("gone");
    if (contains(calls[2], "recording.mp4")) { // else /mnt/sdcard itself serves
        EXPECT_EQ(calls, expected);
    }
    // A delimiter one picture ahead, then pictures 40 ms apart between blocks of audio.
    ASSERT_EQ(buffers.size(), 1u + 300 + 470);
    EXPECT_EQ(buffers[0], "video 1000000 6 0009");
    EXPECT_TRUE(contains(buffers[1], "video 1040000 ")) << buffers[1];
    EXPECT_TRUE(contains(buffers[1], " 0067")) << buffers[1];
    EXPECT_TRUE(contains(buffers[2], "audio 1040000 4096 ")) << buffers[2];
    EXPECT_TRUE(contains(buffers[3], "audio 1061333 4096 ")) << buffers[3];
    EXPECT_TRUE(contains(buffers[4], "video 1080000 ")) << buffers[4];
}

TEST_F(command, survives_damaged_inputs)
{
    SKIP_WITHOUT_FFMPEG();
    const std::string sample = "-fflags +genpts -r 30 -i programme.h264 -i programme.wav -t 3 "
                               "-c:v copy ";
    for (const std::string form : {"-c:a mp2 -f mpegts in.ts", "-c:a aac in.mp4", "in.mkv"}) {
        ASSERT_EQ(ffmpeg(sample + form).status, 0);
        const std::string name = form.substr(form.rfind("in."));
        const uintmax_t size = std::filesystem::file_size(directory / name);
        for (unsigned round = 0; round < 12; round++) {
            std::filesystem::copy_file(directory / name, directory / "bad",
                                       std::filesystem::copy_options::overwrite_existing);
            std::fstream bad(directory / "bad", std::ios::in | std::ios::out | std::ios::binary);
            for (uintmax_t at = round * 7; at < size; at += 1009) {
                bad.seekp(static_cast<std::streamoff>(at));
                bad.put(static_cast<char>(at * 31 + round));
            }
            bad.close();
            if (round % 3 == 0) {
                std::filesystem::resize_file(directory / "bad", size * (1 + round) / 14);
            }
            const command_result result = record("bad -o out.mp4 -f");
            SKIP_WITHOUT_STORAGE(result);
            EXPECT_TRUE(result.status == 0 || result.status == 3 || result.status == 4)
                << name << round << ": " << result.status << result.err;
        }
    }
}

// The refusals of the command: each names the mistake and has the exit code of its kind.
#include "tests/client/command_test.h"

class Refusals : public CommandTest {};

TEST_F(Refusals, NameTheMistakeAndTouchNothing)
{
    const command_result made =
        shell("echo old > kept.mp4; mkdir folder; : > empty; x264='-c:v libx264 -bf 0'; "
              "make() { ffmpeg -nostdin -v error -f lavfi -i testsrc2=s=320x240:d=1 "
              "-i programme.wav -t 1 \"$@\"; }; "
              "make $x264 -bf 2 b.mp4 && make -an $x264 -bf 2 b.h264 && make -c:v mpeg4 m.mkv && "
              "make -an $x264 -bsf:v filter_units=remove_types=7 s.h264 && "
              "make -an $x264 -bsf:v filter_units=remove_types=5 i.h264 && "
              "make -an $x264 -pix_fmt yuv420p10le ten.h264 && "
              "make $x264 -pix_fmt yuv444p four.mkv && make -vn -ar 96000 fast.wav && "
              "make -vn -ac 6 six.wav");
    if (made.status != 0) {
        GTEST_SKIP() << "no ffmpeg that makes the inputs: " << made.err;
    }
    // clang-format off
    const struct {
        const char *line;
        int status;
        const char *sentence;
    } cases[] = {
        {"", 2, "A subcommand is required"},
        {"recrod x", 2, "there is no command \"recrod\"; the commands are record, encode, mux, info, recover"},
        {"record", 2, "--output is required"},
        {"record -o x", 2, "give one INPUT"},
        {"record -o x --frame-rate many " SAMPLE, 2, "1 to 240, not \"many\""},
        {"record -o x --checkpoint 4000 " SAMPLE, 2, "--checkpoint: Value 4000 not in range"},
        {"record -o x missing.ts", 3, "missing.ts: No such file"},
        {"record -o x /dev/zero", 3, "/dev/zero: not readable as raw"},
        {"record -o x --video programme.h264 --audio kept.mp4", 3, "kept.mp4: not readable as"},
        {"record -o x programme.h264", 3, "holds no audio (name another file with --audio, or add --no-audio)"},
        {"record -o kept.mp4 " SAMPLE, 5, "exists already"},
        {"record -o folder -f " SAMPLE, 5, "not a regular file"},
        {"record -o programme.wav -f " SAMPLE, 5, "is an input"},
        {"record -o x b.mp4", 4, "b.mp4: its pictures are not in display order"},
        {"record -o x --video b.h264 --audio programme.wav", 4, "b.h264: its pictures are not in"},
        {"record -o x --video ten.h264 --audio programme.wav", 4, "H.264 of the profile High 10; "},
        {"mux -o x --video four.mkv", 4, "four.mkv: is H.264 of the profile High 4:4:4"},
        {"record -o x four.mkv", 4, "H.264 of the profile High 4:4:4 Predictive; only Baseline, "},
        {"record -o x m.mkv", 4, "m.mkv: its video is mpeg4"},
        {"record -o x --video s.h264 --audio programme.wav", 4, "s.h264: holds no parameter sets"},
        {"record -o x --video i.h264 --audio programme.wav", 4, "i.h264: holds no IDR picture"},
        {"encode programme.wav -o x --bitrate 64500", 2, "multiple of 1000, at least 16000, not 64500"},
        {"encode programme.wav -o x --bitrate 15000", 2, "not 15000"},
        {"encode fast.wav -o x", 4, "fast.wav: its sampling rate is 96000 Hz"},
        {"encode six.wav -o x", 4, "six.wav: it has 6 channels"},
        {"encode programme.h264 -o x", 3, "programme.h264: holds no audio\n"},
        {"encode programme.wav -o kept.mp4", 5, "exists already"},
        {"encode programme.wav -f -o programme.wav", 5, "is an input"},
        {"mux -o x", 2, "give --video, --audio or both"},
        {"mux -o x --video programme.h264 --cache 1,2", 2, "three sizes in bytes"},
        {"mux -o x --video programme.h264 --cache 0,0,0", 2, "input cache size is zero<mux_open"},
        {"mux -o x --audio programme.wav", 4, "its audio is pcm_s16le; only AAC"},
        {"mux -o kept.mp4 --video programme.h264", 5, "exists already"},
        {"info missing.mp4", 3, "missing.mp4: No such file"},
        {"info folder", 3, "folder: Is a directory"},
        {"info empty", 3, "empty: is empty"},
        {"info /dev/null", 3, "/dev/null: is not a regular file"},
        {"info b.mp4 > /dev/full", 5, "the report cannot be written"},
    };
    // clang-format on
    const name_set before = names();
    for (const auto &[line, status, sentence] : cases) {
        const command_result result = shell(std::string(TDMBREC) + line);
        if (result.status == 6) {
            GTEST_SKIP() << "no storage here: " << result.err;
        }
        EXPECT_EQ(result.status, status) << line << "\n" << result.err;
        EXPECT_TRUE(contains(result.err, sentence)) << line << "\n" << result.err;
        EXPECT_EQ(result.out, "") << line;
        EXPECT_EQ(names(), before) << line;
    }
    EXPECT_EQ(std::filesystem::file_size(directory / "kept.mp4"), 4u);
    // The command line that a refusal proposes works.
    for (const char *const input : {"b.mp4", "four.mkv"}) {
        const command_result helped =
            shell("cp " + std::string(input) +
                  " \"it's\"; " RECORD "-o x \"it's\" 2>&1 | "
                  "sed -n 's/.*without them: ffmpeg/ffmpeg -nostdin -v error -y/p' > line; "
                  ". ./line && " RECORD "-f -o x new.mkv");
        EXPECT_TRUE(helped.status == 0 && contains(helped.out, "25 frames")) << helped.err;
    }
}

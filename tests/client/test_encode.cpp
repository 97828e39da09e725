// The encode command, judged by independent decoders.
#include "tests/client/command_test.h"

#include <sstream>

class EncodeCommand : public CommandTest {};

TEST_F(EncodeCommand, MakesStreamsThatDecodersAcceptWithoutAWarning)
{
    if (shell("command -v ffmpeg faad").status != 0) {
        GTEST_SKIP() << "no ffmpeg or no faad";
    }
    const struct {
        const char *made; // by ffmpeg of the sample's sound
        const char *options;
        const char *printed;
    } cases[] = {
        {"-ac 2", "", "0:10.0 of 48000 Hz stereo, 470 frames, "},
        {"-ac 1 -ar 8000 -t 1.1", "--bitrate 16000 --tns --pns",
         "0:01.1 of 8000 Hz mono, 10 frames"},
        {"-c:a pcm_s24le -ar 44100", "--bitrate 256000 --mpeg2 --tns", "44100 Hz stereo, 432 "},
    };
    for (const auto &[made, options, printed] : cases) {
        ASSERT_EQ(ffmpeg(std::string("-i programme.wav ") + made + " in.wav").status, 0);
        const std::string line = std::string(TDMBREC "encode -f in.wav ") + options;
        const command_result framed = shell(line + " -o a.aac");
        const command_result raw = shell(line + " -o raw.aac --raw");
        EXPECT_EQ(framed.status, 0) << framed.err;
        EXPECT_EQ(raw.status, 0) << raw.err;
        EXPECT_TRUE(contains(framed.out, printed)) << framed.out;
        EXPECT_EQ(ffmpeg("-xerror -err_detect explode -i a.aac -f null -").err, "");
        // After one ADIF header or in ADTS frames, the access units decode to the same sound.
        EXPECT_EQ(shell("faad -q -o a.wav a.aac && faad -q -o raw.wav raw.aac && "
                        "cmp a.wav raw.wav")
                      .out,
                  "");
    }
}

TEST_F(EncodeCommand, EncodesEverythingBeforeAFaultAndReportsIt)
{
    shell("head -c 1000000 programme.wav > cut.wav");
    const command_result cut = shell(TDMBREC "encode cut.wav -o a.aac");
    EXPECT_EQ(cut.status, 3);
    EXPECT_EQ(cut.err, "tdmbrec: cut.wav: breaks off (the file is shorter than its header says)\n");
    EXPECT_TRUE(contains(cut.out, "0:05.2 of 48000 Hz")) << cut.out;
    shell(TDMBREC "mux --audio a.aac -o a.mp4; printf '\\377\\377\\377\\377' | "
                  "dd of=a.mp4 bs=1 seek=30000 conv=notrunc");
    const command_result bent = shell(TDMBREC "encode a.mp4 -o b.aac");
    EXPECT_EQ(bent.status, 3);
    EXPECT_TRUE(contains(bent.err, "a.mp4: damaged audio packets left out: ")) << bent.err;
}

TEST_F(EncodeCommand, LeavesNothingWhenItIsAborted)
{
    shell("{ head -c 40 programme.wav; printf '\\377\\377\\377\\377'; } > long.wav; "
          "truncate -s 1900000000 long.wav");
    const name_set before = names();
    const command_result twice = shell(TDMBREC "encode long.wav -o a.aac & " AWAIT_OUTPUT(
        ".") "kill -STOP $!; "
             "kill -TERM $!; kill -HUP $!; kill -CONT $!; wait $!");
    EXPECT_TRUE(twice.status == 143 || twice.status == 129) << twice.status;
    EXPECT_EQ(names(), before);
}

TEST_F(EncodeCommand, SoundsLikeItsInputWithInvertedPolarity)
{
    if (shell("command -v faad && ffmpeg -hide_banner -filters | grep asdr").status != 0) {
        GTEST_SKIP() << "no faad, or an ffmpeg that does not measure";
    }
    // The decoder leaves out the first frame, the encoder's delay.
    const command_result measured = shell(
        TDMBREC "encode programme.wav -o a.aac >&2 && faad -q -o a.wav a.aac && "
                "ffmpeg -nostdin -i programme.wav -i a.wav -lavfi '[1]volume=-1[b];[0][b]asdr' "
                "-f null - 2>&1 | sed -n 's/.*SDR ch[01]: //p'");
    std::string unit;
    double left_db = 0, right_db = 0;
    std::istringstream(measured.out) >> left_db >> unit >> right_db;
    EXPECT_GT(std::min(left_db, right_db), 20) << measured.out;
}

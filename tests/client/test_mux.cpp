// The mux command, judged by independent readers.
#include "tests/client/command_test.h"

class MuxCommand : public CommandTest {
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        if (shell("command -v ffmpeg mkvmerge").status != 0) {
            GTEST_SKIP() << "no ffmpeg or no mkvmerge";
        }
        shell(TDMBREC "encode programme.wav -o in.aac");
    }

    // returns: times, sizes and checksums of all frames of the file made with these arguments
    std::string frames_of(const std::string &arguments, const std::string &file)
    {
        const command_result made = shell(TDMBREC "mux -f -o " + file + " " + arguments);
        EXPECT_EQ(made.status, 0) << arguments << made.err;
        const command_result info = shell(TDMBREC "info " + file);
        EXPECT_TRUE(info.status == 0 && info.out.ends_with("No fault found.\n")) << info.out;
        EXPECT_EQ(shell("ffprobe -v warning -count_packets " + file).err, "") << arguments;
        return ffmpeg("-i " + file + " -map 0 -c copy -f framehash -hash crc32 -").out;
    }
};

TEST_F(MuxCommand, MakesTheSameFramesWithAnyMemoryAndReadersAcceptThem)
{
    const std::string inputs = "--video programme.h264 --audio in.aac ";
    const std::string frames = frames_of(inputs, "a.mp4");
    EXPECT_GT(frames.size(), 770u * 40);
    for (const char *const memory :
         {"--cache none", "--cache 4096,4096,4096 --close-memory 0", "--cache 100,100,100 --append",
          "--cache 1000,0,0 --close-memory 1100000", "--cache none --64-bit --append"}) {
        EXPECT_EQ(frames_of(inputs + memory, "b.mp4"), frames) << memory;
    }
    EXPECT_EQ(frames_of("--video a.mp4 --audio a.mp4", "c.mp4"), frames) << "from its own file";
    EXPECT_EQ(ffmpeg("-xerror -err_detect explode -i b.mp4 -f null -").err, "");
    const command_result judged = shell("mkvmerge -q -o b.mkv b.mp4");
    EXPECT_EQ(judged.out + judged.err, "");
}

TEST_F(MuxCommand, WritesOneTrackAlone)
{
    frames_of("--video programme.h264 --frame-rate 15", "slow.mp4");
    EXPECT_TRUE(contains(shell(TDMBREC "info slow.mp4").out, "300 frames at 15.0"));
    frames_of("--audio in.aac", "sound.mp4");
}

// An extension doubles the sampling rate; the units last as long as without it.
TEST_F(MuxCommand, KeepsTheTimesOfExtendedAudio)
{
    shell("ffmpeg -v error -i programme.wav -ar 24000 -c:a aac he.mp4; LC_ALL=C sed -i "
          "'s/\\x13\\x10\\x56\\xe5\\x00/\\x2b\\x11\\x88\\x00\\x00/' he.mp4");
    frames_of("--audio he.mp4", "he.out.mp4");
    EXPECT_TRUE(contains(shell(TDMBREC "info he.out.mp4").out, "object type 5, 24000 Hz"));
}

TEST_F(MuxCommand, AlignsTheSoundOfAFileToItsFirstPicture)
{
    for (const auto &[offset, warning] : {std::pair("2", "moved to the front by: 19"),
                                          std::pair("-2", "first picture left out: 20"),
                                          std::pair("-20", "ends before the first picture")}) {
        ffmpeg(TIMED_SAMPLE "-itsoffset " + std::string(offset) +
               " -i programme.wav -c:v copy -c:a aac -f mpegts apart");
        const command_result apart = shell(TDMBREC "mux -f --video apart --audio apart -o x");
        EXPECT_EQ(apart.status, offset == std::string("-20") ? 4 : 0);
        EXPECT_TRUE(contains(apart.err, warning)) << apart.err;
    }
}

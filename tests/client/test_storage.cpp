#include "tests/client/command_support.h"

// Runs a script in a mount namespace of its own, with a file system of the given size at /mnt.
static command_result run_below_mnt(const std::filesystem::path &directory, const char *size,
                                    const std::string &script)
{
    return run_shell(directory, "unshare -rm sh -c 'mount -t tmpfs -o size=" + std::string(size) +
                                    " none /mnt && " + script + "'");
}

static const std::string RECORD = std::string(TDMBREC_COMMAND " record ") + SAMPLE;

class storage : public command {
  protected:
    void SetUp() override
    {
        command::SetUp();
        if (run_below_mnt(directory, "1m", "true").status != 0) {
            GTEST_SKIP() << "this system allows no mount namespace";
        }
    }
};

TEST_F(storage, serves_inputs_and_outputs_below_its_own_mount_point)
{
    const command_result result =
        run_below_mnt(directory, "200m",
                      "cp programme.* /mnt && cd /mnt && " + RECORD + "-o a.mp4 && ls -A /mnt");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("\na.mp4\nprogramme.h264\nprogramme.wav\n"), std::string::npos)
        << result.out;
}

TEST_F(storage, refuses_a_full_file_system_and_sees_it_fill)
{
    const command_result full =
        run_below_mnt(directory, "40m", RECORD + "-o /mnt/a.mp4; echo $?; ls -A /mnt");
    EXPECT_EQ(full.out, "12\n");
    EXPECT_NE(full.err.find("only 41.9 MB are free"), std::string::npos) << full.err;

    // Another writer takes the space while the recording runs; the file is finished all the same.
    const command_result filling =
        run_below_mnt(directory, "70m",
                      "{ sleep 1; head -c 30000000 /dev/zero > /mnt/other; } & " + RECORD +
                          "--realtime -o /mnt/a.mp4; echo $?; ls -A /mnt");
    EXPECT_NE(filling.out.find("Ended  the free space is used up"), std::string::npos)
        << filling.out << filling.err;
    EXPECT_NE(filling.out.find("\n12\na.mp4\nother\n"), std::string::npos) << filling.out;
}

TEST_F(storage, leaves_nothing_when_writing_fails)
{
    const command_result result =
        run_shell(directory, "ulimit -f 300; " + RECORD + "-o a.mp4; echo $?; ls -A");
    EXPECT_TRUE(result.out == "7\nprogramme.h264\nprogramme.wav\n" ||
                result.out == "15\nprogramme.h264\nprogramme.wav\n")
        << result.out << result.err;
}

// Without namespaces /mnt/sdcard itself serves; the output lies on another file system.
TEST_F(storage, does_without_namespaces)
{
    const std::string forbid = "echo 0 > /proc/sys/user/max_mnt_namespaces && "
                               "echo 0 > /proc/sys/user/max_user_namespaces";
    if (run_below_mnt(directory, "1m", forbid).status != 0) {
        GTEST_SKIP() << "this system does not let namespaces be forbidden";
    }
    const command_result missing =
        run_below_mnt(directory, "1m", forbid + " && " + RECORD + "-o a.mp4");
    EXPECT_EQ(missing.status, 6);
    EXPECT_NE(missing.err.find("sudo mkdir -p /mnt/sdcard\n"), std::string::npos) << missing.err;

    const command_result moved =
        run_below_mnt(directory, "200m",
                      forbid + " && mkdir /mnt/sdcard && " + RECORD + "--card -o a.mp4 && " +
                          "ls -A /mnt/sdcard . && ! " + RECORD + "-o a.mp4");
    EXPECT_EQ(moved.status, 0) << moved.err;
    EXPECT_NE(moved.out.find("\n.:\na.mp4\nprogramme.h264\nprogramme.wav\n\n/mnt/sdcard:\n"),
              std::string::npos)
        << moved.out;
}

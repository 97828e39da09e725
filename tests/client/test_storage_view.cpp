// How the command provides the component's storage where the system forbids the usual way.
#include "tests/client/command_test.h"

#define RECORD TDMBREC "record " SAMPLE "-f -o a.mp4"

static constexpr bool kNeedsProc = // a sanitizer does, for its own sake
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    true;
#else
    false;
#endif

class StorageView : public CommandTest {
  protected:
    // Records below an empty /mnt and then prints the exit code, the size of the file and what is
    // left at /mnt.
    command_result record_below_mnt(const std::string &before, const std::string &program)
    {
        return shell("unshare -rm sh -c 'mount -t tmpfs -o size=1m none /mnt; " + before + "; " +
                     program + " >&2; echo $?; stat -c %s a.mp4; ls -Am /mnt; rm -f a.mp4'");
    }
};

TEST_F(StorageView, IsAMountOrALinkAndOtherwiseSaysWhatIsMissing)
{
    if (shell("unshare -rm mount -t tmpfs none /mnt").status != 0) {
        GTEST_SKIP() << "this system allows no mount namespace";
    }
    const std::string recorded = "0\n580087\n", no_unshare = FORBID " unshare ";
    const std::string no_proc = // the loader cannot find the libraries beside the command there
        "mount -t tmpfs none /proc; export LD_LIBRARY_PATH=$TDMBREC_BUILD/lib";
    const std::string other_user = "unshare -U --map-user=7 --map-group=7 ";
    const struct {
        std::string before, forbid, out, sentence;
    } cases[] = {
        {"true", "", recorded, ""},
        {"true", no_unshare, recorded, ""},
        {"true", FORBID " mount ", recorded, ""},
        {"true", FORBID " bind ", recorded, ""}, // the memory at /mnt is taken away again
        {kNeedsProc ? "true" : no_proc, "", recorded, ""},
        // What a killed command has left is replaced; what another owns is not.
        {"ln -s .tdmbrec-sdcard /mnt/sdcard; ln -s /gone /mnt/.tdmbrec-sdcard", no_unshare,
         recorded, ""},
        {"ln -s /gone /mnt/sdcard", no_unshare, "6\nsdcard\n",
         "(unshare: Operation not permitted, /mnt/sdcard: No such file or directory)\n"},
        {"echo > /mnt/.tdmbrec-sdcard", no_unshare, "6\n.tdmbrec-sdcard\n", "symlink: File exists"},
        {"echo > /mnt/sdcard", "", "6\nsdcard\n", "(mount: Not a directory, "},
        {"true", "flock /mnt " + no_unshare, "6\n", "another recording is using /mnt/sdcard"},
        {"mount -o remount,ro /mnt", other_user + no_unshare, "6\n",
         "symlink: Read-only file system, /mnt/sdcard: No such file or directory); as root, run: "
         "mkdir -p /mnt/sdcard && chown 7 /mnt/sdcard\n"},
    };
    for (const auto &[before, forbid, out, sentence] : cases) {
        const command_result result = record_below_mnt(before, forbid + RECORD);
        EXPECT_EQ(result.out, out) << before << "; " << forbid << result.err;
        EXPECT_TRUE(contains(result.err, sentence)) << before << "; " << forbid << result.err;
        EXPECT_EQ(names(), SAMPLE_ALONE) << before << "; " << forbid;
    }
}

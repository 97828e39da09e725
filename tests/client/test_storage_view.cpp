// How the command provides the component's storage, also where the system forbids the usual way.
#include "tests/client/command_test.h"

static constexpr bool kNeedsProc = // sanitizers read /proc
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    true;
#else
    false;
#endif

class StorageView : public CommandTest {
  protected:
    // Runs a script with a file system of that size at /mnt in a private mount namespace, and then
    // prints its exit code and the names in a place.
    command_result below_mnt(const std::string &size, const std::string &script,
                             const std::string &place)
    {
        return shell("unshare -rm sh -c 'mount -t tmpfs -o size=" + size + " none /mnt && " +
                     script + "; echo $?; ls -A " + place + "'");
    }
};

TEST_F(StorageView, IsAMountOrALinkAndOtherwiseIsReportedAsMissing)
{
    if (shell("unshare -rm mount -t tmpfs none /mnt").status != 0) {
        GTEST_SKIP() << "this system allows no mount namespace";
    }
    const std::string recorded = "0\n579573\n", no_unshare = FORBID " unshare ";
    const std::string no_proc = // the loader cannot find the libraries beside the command there
        "mount -t tmpfs none /proc; export LD_LIBRARY_PATH=$TDMBREC_BUILD/lib";
    const std::string other_user = "unshare -U --map-user=7 --map-group=7 ";
    const struct {
        std::string before, forbid, out, sentence;
    } cases[] = {
        {"true", "", recorded, ""},
        {"true", no_unshare, recorded, ""},
        {"true", FORBID " mount ", recorded, ""},
        {"true", FORBID " bind ", recorded, ""}, // the file system at /mnt is unmounted again
        {kNeedsProc ? "true" : no_proc, "", recorded, ""},
        // The links of a killed command are replaced, those of others are not.
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
        const command_result result =
            below_mnt("1m", before + "; " + forbid + RECORD SAMPLE "-f -o a.mp4 >&2", "/mnt");
        const std::string size = shell("stat -c %s a.mp4 && rm a.mp4").out;
        EXPECT_EQ(result.out + size, out) << before << "; " << forbid << result.err;
        EXPECT_TRUE(contains(result.err, sentence)) << before << "; " << forbid << result.err;
        EXPECT_EQ(names(), kSampleAlone) << before << "; " << forbid;
    }
}

TEST_F(StorageView, ServesOnEveryFileSystem)
{
    const std::string forbid = "echo 0 > /proc/sys/user/max_mnt_namespaces && "
                               "echo 0 > /proc/sys/user/max_user_namespaces && ";
    const struct {
        std::string size, script, place, ending, sentence;
    } cases[] = {
        {"200m", "cp programme.* /mnt && cd /mnt && " RECORD SAMPLE "-o a.mp4", "/mnt",
         "0\na.mp4\nprogramme.h264\nprogramme.wav\n", ""},
        {"40m", RECORD SAMPLE "-o /mnt/a.mp4", "/mnt", "12\n", "only 41.9 MB are free"},
        // Another writer takes the space during the recording; the file is still finished.
        {"70m",
         "{ " AWAIT_OUTPUT("/mnt") "head -c 30000000 /dev/zero > /mnt/other; } & " RECORD SAMPLE
                                   "--realtime -o /mnt/a.mp4",
         "/mnt", "12\na.mp4\nother\n", "Ended  the free space is used up"},
        // Without namespaces, /mnt/sdcard itself is used, on another file system than the output.
        {"200m",
         forbid + "mkdir /mnt/sdcard && " RECORD SAMPLE "--card -o a.mp4 && ! " RECORD SAMPLE
                  "-o a.mp4",
         ". /mnt/sdcard", "0\n.:\na.mp4\nprogramme.h264\nprogramme.wav\n\n/mnt/sdcard:\n", ""},
    };
    if (below_mnt("1m", forbid + "true", "").out.rfind("0\n", 0) != 0) {
        GTEST_SKIP() << "this system allows no mount namespace, or no ban of them";
    }
    for (const auto &[size, script, place, ending, sentence] : cases) {
        const command_result result = below_mnt(size, script, place);
        EXPECT_TRUE(("\n" + result.out).ends_with("\n" + ending)) << result.out << result.err;
        EXPECT_TRUE(contains(result.out + result.err, sentence)) << result.out << result.err;
    }
}

#include "tests/support/storage_namespace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static void write_text(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY);
    if (fd >= 0) {
        if (write(fd, text.data(), text.size()) < 0) {
            perror(path);
        }
        close(fd);
    }
}

static bool unshare_mounts()
{
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (uid == 0 && unshare(CLONE_NEWNS) == 0) {
        return true;
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    write_text("/proc/self/setgroups", "deny");
    write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    return true;
}

static bool mount_storage()
{
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/mnt", "tmpfs", 0, "size=1m") == 0 && mkdir("/mnt/sdcard", 0777) == 0 &&
           mount("built-in", "/mnt/sdcard", "tmpfs", 0, "size=3g") == 0 &&
           mkdir("/mnt/sdcard/tflash", 0777) == 0 &&
           mount("card", "/mnt/sdcard/tflash", "tmpfs", 0, "size=64m") == 0;
}

int run_in_storage_namespace(int argc, char **argv)
{
    const bool lists_only = argc > 1 && strcmp(argv[1], "--gtest_list_tests") == 0;
    if (lists_only) {
        return -1;
    }
    const pid_t child = fork(); // a new user namespace needs a process of one thread
    if (child == 0) {
        if (unshare_mounts() && mount_storage()) {
            return -1;
        }
        perror("this program needs memory file systems at /mnt in a mount namespace of its own, "
               "which this system does not allow");
        return 1;
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        perror("fork");
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

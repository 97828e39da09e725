#include "client/storage_view.h"

#include "client/failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

// /mnt/sdcard is a link to a second link beside it, which leads to the folder. This distinguishes
// the link of a killed command from every other link of that name.
static constexpr char kMount[] = "/mnt";
static constexpr char kName[] = "sdcard";
static constexpr char kOwnLink[] = ".tdmbrec-sdcard";

static bool isolated;        // in the private mount namespace
static bool is_mounted;      // the folder
static int linked = -1;      // /mnt, locked, while the link exists
static std::string refusals; // of the system, for the user
static uid_t user;           // taken before the namespace, which may have no name for it

// Notes the call that failed, with errno.
// returns: false
static bool refuse(const std::string &what)
{
    const int error = errno;
    refusals += (refusals.empty() ? "" : ", ") + what + ": " + std::strerror(error);
    return false;
}

static bool write_file(const char *path, const std::string &text)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0) {
        return refuse(path);
    }
    const ssize_t written = write(file, text.data(), text.size());
    const bool is_whole = written == static_cast<ssize_t>(text.size()) || refuse(path);
    close(file);
    return is_whole;
}

// The user and the group keep their numbers in the new namespace. Not for root, who would lose the
// right to other users' files, and can make the link.
static bool enter_user_namespace(void)
{
    const gid_t group = getegid(); // before the maps are written, the namespace has neither number
    if (user == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return refuse("unshare");
    }
    const std::string uid = std::to_string(user);
    const std::string gid = std::to_string(group);
    return write_file("/proc/self/setgroups", "deny") &&
           write_file("/proc/self/uid_map", uid + " " + uid + " 1") &&
           write_file("/proc/self/gid_map", gid + " " + gid + " 1");
}

// A slave hides its own mounts from the system, and still receives the system's: an unmount of the
// output's file system is refused as busy.
void storage_isolate(void)
{
    user = geteuid();
    isolated = (unshare(CLONE_NEWNS) == 0 || enter_user_namespace()) &&
               (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) == 0 || refuse("mount"));
}

// Makes the call in the folder, which needs no path to it and no /proc.
template <typename Call>
static bool call_within(int folder, Call call)
{
    const int before = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (before < 0) {
        return refuse("the current folder");
    }
    if (fchdir(folder) != 0) {
        refuse("fchdir");
        close(before);
        return false;
    }
    const bool is_done = call();
    if (fchdir(before) != 0) {
        refuse("fchdir");
    }
    close(before);
    return is_done;
}

static bool mount_folder(int folder)
{
    struct stat status = {};
    const bool makes_name = lstat(kStorageMount, &status) != 0;
    if (makes_name &&
        mount("tmpfs", kMount, "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=755") != 0) {
        return refuse("mount");
    }
    const bool shown =
        (!makes_name || mkdir(kStorageMount, 0755) == 0 || refuse("mkdir")) &&
        call_within(folder, [] {
            return mount(".", kStorageMount, nullptr, MS_BIND, nullptr) == 0 || refuse("mount");
        });
    if (makes_name && !shown) {
        umount2(kMount, MNT_DETACH);
    }
    is_mounted = shown;
    return shown;
}

static bool is_own_link(int directory)
{
    char target[sizeof kOwnLink] = {};
    return readlinkat(directory, kName, target, sizeof target) == sizeof kOwnLink - 1 &&
           std::memcmp(target, kOwnLink, sizeof kOwnLink - 1) == 0;
}

static void remove_links(int directory)
{
    struct stat status = {};
    if (is_own_link(directory)) {
        unlinkat(directory, kName, 0);
    }
    if (fstatat(directory, kOwnLink, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(status.st_mode)) {
        unlinkat(directory, kOwnLink, 0);
    }
}

static bool link_folder(int folder, int directory)
{
    remove_links(directory);
    const bool is_linked = call_within(folder, [directory] {
        std::error_code error;
        const std::string path = std::filesystem::current_path(error);
        return (!error && symlinkat(path.c_str(), directory, kOwnLink) == 0 &&
                symlinkat(kOwnLink, directory, kName) == 0) ||
               refuse("symlink");
    });
    if (!is_linked) {
        remove_links(directory);
    }
    return is_linked;
}

// Locks /mnt as long as the link exists.
static bool show_link(int folder)
{
    const int directory = open(kMount, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return refuse(kMount);
    }
    const bool is_free = faccessat(directory, kName, F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    if (is_free || is_own_link(directory)) {
        if (flock(directory, LOCK_EX | LOCK_NB) != 0) {
            close(directory);
            storage_refuse_in_use();
        }
        if (link_folder(folder, directory)) {
            linked = directory;
            return true;
        }
    }
    close(directory);
    return false;
}

bool storage_show(int folder)
{
    return (isolated && mount_folder(folder)) || show_link(folder);
}

void storage_hide(void)
{
    if (is_mounted) { // a removed folder would refuse the next mount
        umount2(kStorageMount, MNT_DETACH);
        is_mounted = false;
    }
    if (linked >= 0) {
        remove_links(linked);
        close(linked);
        linked = -1;
    }
}

void storage_refuse_in_use(void)
{
    throw failure(exit_code::storage, std::string("another recording is using ") + kStorageMount);
}

std::string storage_refusal(int error)
{
    refusals += std::string(", ") + kStorageMount + ": " + std::strerror(error);
    const std::string make = error == ENOENT ? "mkdir -p /mnt/sdcard && " : "";
    const std::string way =
        "; as root, run: " + make + "chown " + std::to_string(user) + " /mnt/sdcard";
    return "the recorder needs the folder /mnt/sdcard, which this system does not let it provide "
           "(" +
           refusals + ")" + (user == 0 ? "" : way);
}

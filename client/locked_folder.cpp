#include "client/locked_folder.h"

#include "client/failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr size_t kNameBytesMax = 255;
static constexpr int kFoldersMax = 999;   // of one output
static constexpr size_t kNumberBytes = 4; // "-999"
static constexpr size_t kDigestBytes = 8;

static bool starts_inside_character(const std::string &text, size_t at)
{
    return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0u) == 0x80u;
}

// FNV-1a, 32 bits, in hexadecimal.
static std::string digest(const std::string &text)
{
    uint32_t sum = 0x811C9DC5;
    for (const char letter : text) {
        sum = (sum ^ static_cast<uint8_t>(letter)) * 0x01000193;
    }
    std::string digits(kDigestBytes, '0');
    for (size_t i = kDigestBytes; i > 0; i--, sum >>= 4) {
        digits[i - 1] = "0123456789abcdef"[sum & 15];
    }
    return digits;
}

// The output's name and the suffix. A name that is too long is cut between two characters of UTF-8,
// and a digest of the whole distinguishes it from others that begin alike.
static std::string first_name(const std::string &output_name, const std::string &suffix)
{
    const size_t most = kNameBytesMax - kNumberBytes - suffix.size();
    if (output_name.size() <= most) {
        return output_name + suffix;
    }
    size_t size = most - kDigestBytes - 1;
    while (size > 0 && starts_inside_character(output_name, size)) {
        size--;
    }
    return output_name.substr(0, size) + "-" + digest(output_name) + suffix;
}

// Follows no link: it may lead to a folder that is not ours to clear.
static int open_folder(int directory, const std::string &name)
{
    return openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

static bool has_name(int folder, int directory, const std::string &name)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(folder, &opened) == 0 &&
           fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Locks a folder that was just made.
// returns: false when another process has removed it before the lock, as one that was left
static bool lock_new(int directory, locked_folder &folder)
{
    folder.descriptor = open_folder(directory, folder.name);
    if (folder.descriptor < 0) {
        return false;
    }
    while (flock(folder.descriptor, LOCK_EX) != 0 && errno == EINTR) {
    }
    if (has_name(folder.descriptor, directory, folder.name)) {
        return true;
    }
    close(folder.descriptor);
    folder.descriptor = -1;
    return false;
}

static void refuse_in_use(int directory, const std::string &output_name, const std::string &name)
{
    found_folder found;
    if (locked_folder_find(found, directory, name, LOCK_SH) &&
        found.state == folder_state::in_use) {
        throw failure(exit_code::output, output_name + ": another command is writing it, in the " +
                                             "folder " + name + " beside it");
    }
}

locked_folder locked_folder_make(int directory, const std::string &output_name,
                                 const std::string &suffix)
{
    const std::string stem = first_name(output_name, suffix);
    locked_folder folder = {.name = stem};
    int number = 1;
    for (int attempt = 0; attempt < 2 * kFoldersMax && number <= kFoldersMax; attempt++) {
        if (mkdirat(directory, folder.name.c_str(), 0700) == 0) {
            if (lock_new(directory, folder)) {
                return folder;
            }
        } else if (errno == EEXIST) {
            refuse_in_use(directory, output_name, folder.name);
            folder.name = stem + "-" + std::to_string(++number);
        } else {
            break;
        }
    }
    fail_with_errno(exit_code::output,
                    "no folder " + folder.name + " can be made beside the output");
}

void locked_folder_remove(int directory, const locked_folder &folder)
{
    if (has_name(folder.descriptor, directory, folder.name)) {
        unlinkat(directory, folder.name.c_str(), AT_REMOVEDIR);
    }
}

std::vector<std::string> locked_folder_names(int directory, const std::string &output_name,
                                             const std::string &suffix)
{
    const std::string stem = first_name(output_name, suffix);
    std::vector<std::string> names;
    const int listed = open_folder(directory, ".");
    DIR *const entries = listed >= 0 ? fdopendir(listed) : nullptr;
    while (const dirent *const entry = entries != nullptr ? readdir(entries) : nullptr) {
        const std::string name = entry->d_name;
        const std::string rest = name.starts_with(stem) ? name.substr(stem.size()) : "no";
        const bool is_numbered = rest.size() > 1 && rest[0] == '-' &&
                                 rest.find_first_not_of("0123456789", 1) == std::string::npos;
        if (rest.empty() || is_numbered) {
            names.push_back(name);
        }
    }
    if (entries != nullptr) {
        closedir(entries);
    }
    std::sort(names.begin(), names.end());
    return names;
}

found_folder::~found_folder()
{
    if (folder.descriptor >= 0) {
        close(folder.descriptor);
    }
}

// Retries, because a command that only looks or clears holds the lock for a moment.
static bool take_lock(int folder, int lock)
{
    static constexpr int kTries = 5;
    static constexpr useconds_t kPauseUs = 20000;
    for (int attempt = 1; flock(folder, lock | LOCK_NB) != 0; attempt++) {
        if (errno != EWOULDBLOCK || attempt == kTries) {
            return false;
        }
        usleep(kPauseUs);
    }
    return true;
}

bool locked_folder_find(found_folder &found, int directory, const std::string &name, int lock)
{
    found.folder = {open_folder(directory, name), name};
    if (found.folder.descriptor < 0) {
        return errno == EACCES; // it belongs to another user
    }
    const bool is_locked = take_lock(found.folder.descriptor, lock);
    found.state = is_locked              ? folder_state::left
                  : errno == EWOULDBLOCK ? folder_state::in_use
                                         : folder_state::unlockable;
    return true;
}

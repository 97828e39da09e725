#include "client/storage_root.h"

#include "client/failure.h"
#include "platform/host/host_control.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static constexpr char kCardProperty[] = "qvr.sdcard.db.status";

storage_root::~storage_root()
{
    storage_discard(*this);
    for (const int descriptor : {scratch, folder.descriptor}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

std::unique_ptr<storage_root> storage_open(const std::string &output, bool force)
{
    std::unique_ptr<storage_root> root = std::make_unique<storage_root>();
    root->place = output_place_open(output, force);
    std::error_code ignored;
    root->directory_path = std::filesystem::absolute(root->place->directory_path, ignored);
    return root;
}

static void use_storage_itself(storage_root &root)
{
    root.scratch = open(kStorageMount, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root.scratch < 0 || faccessat(root.scratch, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        throw failure(exit_code::storage, storage_refusal(errno));
    }
    if (flock(root.scratch, LOCK_EX | LOCK_NB) != 0) {
        storage_refuse_in_use();
    }
    root.is_shared = true;
}

static void provide_card(storage_root &root)
{
    root.made_card = mkdirat(root.scratch, kCardName, 0700) == 0;
    if (!root.made_card && errno != EEXIST) {
        fail_with_errno(exit_code::storage, "the card cannot be provided");
    }
    host_set_property(kCardProperty, "available");
}

// Avoids the recordings that earlier commands left in /mnt/sdcard.
static std::string choose_shared_name(const storage_root &root, const std::string &folder)
{
    const std::string stem = folder + "tdmbrec-" + std::to_string(getpid());
    std::string name = stem + ".mp4";
    const auto is_taken = [&root](const std::string &file) {
        return faccessat(root.scratch, file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    };
    for (int number = 2; is_taken(name) || is_taken(name + TDMBREC_JOURNAL_SUFFIX); number++) {
        name = stem + "-" + std::to_string(number) + ".mp4";
    }
    return name;
}

static void choose_name(storage_root &root, bool card)
{
    const std::string folder = card ? std::string(kCardName) + "/" : "";
    if (!root.is_shared) {
        root.record_name = folder + kRecordingName;
        return;
    }
    root.record_name = choose_shared_name(root, folder);
    // Lead from the folder to the recording and its journal, where the file system has links.
    const std::string path = storage_component_path(root);
    (void)symlinkat(path.c_str(), root.folder.descriptor, kRecordingName);
    (void)symlinkat((path + TDMBREC_JOURNAL_SUFFIX).c_str(), root.folder.descriptor, kJournalName);
}

// The folder shown below /mnt may hide the path from this process.
static bool is_in_sight(const storage_root &root)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(root.place->directory, &opened) == 0 &&
           stat(root.directory_path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

static void provide_folder(storage_root &root)
{
    root.folder = locked_folder_make(root.place->directory, root.place->name, kRecordingSuffix);
    if (storage_show(root.folder.descriptor)) {
        root.scratch = openat(root.folder.descriptor, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (root.scratch < 0) {
            fail_with_errno(exit_code::output, root.folder.name);
        }
    } else {
        use_storage_itself(root);
    }
}

void storage_provide(storage_root &root, bool card)
{
    provide_folder(root);
    if (card) {
        provide_card(root);
    }
    choose_name(root, card);
    root.was_in_sight = is_in_sight(root);
}

std::string storage_component_path(const storage_root &root)
{
    return std::string(kStorageMount) + "/" + root.record_name;
}

uint64_t storage_free_bytes(const storage_root &root)
{
    struct statvfs status = {};
    return fstatvfs(root.scratch, &status) == 0 ? uint64_t{status.f_bavail} * status.f_frsize : 0;
}

struct file_place {
    int directory;
    std::string name;
};

static file_place place_of_recording(const storage_root &root)
{
    return root.is_moved ? file_place{root.folder.descriptor, kRecordingName}
                         : file_place{root.scratch, root.record_name};
}

uint64_t storage_recorded_bytes(const storage_root &root)
{
    const file_place place = place_of_recording(root);
    struct stat status = {};
    return fstatat(place.directory, place.name.c_str(), &status, 0) == 0
               ? static_cast<uint64_t>(status.st_size)
               : 0;
}

int storage_open_recording(const storage_root &root)
{
    const file_place place = place_of_recording(root);
    return openat(place.directory, place.name.c_str(), O_RDONLY | O_CLOEXEC);
}

bool storage_has_recording(const storage_root &root)
{
    const file_place place = place_of_recording(root);
    return faccessat(place.directory, place.name.c_str(), F_OK, 0) == 0 || errno != ENOENT;
}

bool storage_is_out_of_sight(const storage_root &root)
{
    return root.was_in_sight && !is_in_sight(root);
}

// returns: whether the shell's limit for files stops the recording
static bool is_at_limit(const storage_root &root)
{
    struct rlimit limit = {};
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
           storage_recorded_bytes(root) >= limit.rlim_cur;
}

// Writes a block to the storage.
// returns: the errno of the failure, or 0
static int probe(const storage_root &root)
{
    static constexpr char kName[] = "probe";
    static constexpr std::array<char, 4096> kBlock = {};
    const int file = openat(root.scratch, kName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) {
        return errno;
    }
    errno = ENOSPC; // the reason for a partial write, which sets none
    const bool is_written =
        write(file, kBlock.data(), kBlock.size()) == static_cast<ssize_t>(kBlock.size()) &&
        fsync(file) == 0;
    const int error = is_written ? 0 : errno;
    close(file);
    unlinkat(root.scratch, kName, 0);
    return error;
}

std::string storage_trouble(const storage_root &root)
{
    struct stat folder = {};
    if (fstat(root.folder.descriptor, &folder) == 0 && folder.st_nlink == 0) {
        return "the folder " + root.folder.name + " was deleted";
    }
    if (storage_is_out_of_sight(root)) {
        return "the output's directory was moved, or its storage unmounted";
    }
    switch (const int error = probe(root)) {
    case 0:
        return is_at_limit(root) ? "it has reached the shell's limit for files (ulimit -f)" : "";
    case EROFS:
        return "the storage is read-only now";
    case ENOSPC:
    case EDQUOT:
        return "the storage is full";
    default:
        return std::string("the storage fails (") + std::strerror(error) + ")";
    }
}

static bool copy_bytes(int from, int to)
{
    ssize_t copied = 0;
    do {
        copied = sendfile(to, from, nullptr, 1 << 24);
    } while (copied > 0 || (copied < 0 && errno == EINTR));
    return copied == 0 && fsync(to) == 0;
}

// For a recording on another file system. The copy replaces the link.
static bool copy_to_folder(const storage_root &root, int recording)
{
    const int folder = root.folder.descriptor;
    const int copy = openat(folder, kCopyName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (copy < 0) {
        return false;
    }
    const bool placed =
        copy_bytes(recording, copy) && renameat(folder, kCopyName, folder, kRecordingName) == 0;
    const int error = errno;
    close(copy);
    unlinkat(placed ? root.scratch : folder, placed ? root.record_name.c_str() : kCopyName, 0);
    errno = error;
    return placed;
}

static bool move_to_folder(storage_root &root, int recording)
{
    root.is_moved = renameat(root.scratch, root.record_name.c_str(), root.folder.descriptor,
                             kRecordingName) == 0 ||
                    (errno == EXDEV && copy_to_folder(root, recording));
    return root.is_moved;
}

void storage_settle(storage_root &root)
{
    const int recording = storage_open_recording(root);
    if (recording < 0) {
        fail_with_errno(exit_code::component, "the recorder component left no file");
    }
    const bool settled =
        fsync(recording) == 0 && (!root.is_shared || move_to_folder(root, recording));
    const int error = errno;
    close(recording);
    if (!settled) {
        errno = error;
        fail_with_errno(exit_code::output, "the file cannot be brought to the output's directory");
    }
}

void storage_publish(storage_root &root)
{
    const file_place place = place_of_recording(root);
    if (!output_place_take(*root.place, place.directory, place.name)) {
        fail_with_errno(exit_code::output, "the file cannot take the name " + root.place->name);
    }
    storage_discard(root);
}

unfinished_recording storage_look(const storage_root &root)
{
    const bool is_beside = !root.is_shared || root.is_moved;
    const file_place place = place_of_recording(root);
    unfinished_recording recording = unfinished_recording_look(place.directory, place.name);
    recording.place = is_beside ? output_path_text({root.place->directory_path, ""},
                                                   root.folder.name + "/" + place.name)
                                : storage_component_path(root);
    recording.source = output_path_text({root.place->directory_path, ""}, root.folder.name);
    return recording;
}

// Removes the muxer's tables from /mnt/sdcard. Those of a recording that is kept are renamed after
// it, so that the next recording does not overwrite them.
static void clear_tables(const storage_root &root, bool is_kept)
{
    const size_t slash = root.record_name.find('/');
    const std::string directory =
        slash == std::string::npos ? "" : root.record_name.substr(0, slash + 1);
    for (const char *const name : kMuxTableNames) {
        const std::string table = directory + name;
        if (is_kept) {
            (void)renameat(root.scratch, table.c_str(), root.scratch,
                           (root.record_name + "." + name).c_str());
        } else {
            unlinkat(root.scratch, table.c_str(), 0);
        }
    }
}

void storage_discard(storage_root &root)
{
    storage_hide();
    if (root.folder.descriptor < 0) {
        return;
    }
    unlinkat(root.folder.descriptor, kCopyName, 0);
    const bool is_kept =
        !root.record_name.empty() && storage_look(root).file != recording_state::empty;
    if (root.is_shared && !root.record_name.empty()) {
        clear_tables(root, is_kept);
    }
    if (is_kept) {
        return;
    }
    if (root.is_shared && !root.record_name.empty()) {
        unlinkat(root.scratch, root.record_name.c_str(), 0);
        unlinkat(root.scratch, (root.record_name + TDMBREC_JOURNAL_SUFFIX).c_str(), 0);
        unlinkat(root.folder.descriptor, kRecordingName, 0); // the link to it
    }
    if (root.made_card) {
        unlinkat(root.scratch, kCardName, AT_REMOVEDIR);
    }
    unfinished_recording_clear(root.place->directory, root.folder);
    close(root.folder.descriptor);
    root.folder.descriptor = -1;
}

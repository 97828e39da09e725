#include "client/storage_root.h"

#include "client/failure.h"

#include "platform/host/host_control.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static constexpr char card_name[] = "tflash";
static constexpr char card_property[] = "qvr.sdcard.db.status";

// The component's own files beside a recording, while it is under way.
static constexpr const char *component_files[] = {"a_stco.tmp", "a_stsz.tmp", "v_stco.tmp",
                                                  "v_stsz.tmp", "v_stss.tmp", "v_stts_dts.tmp"};

[[noreturn]] static void fail(exit_code code, const std::string &what)
{
    throw failure(code, what + ": " + std::strerror(errno));
}

storage_root::~storage_root()
{
    storage_discard(*this);
    if (scratch >= 0) {
        close(scratch);
    }
}

std::unique_ptr<storage_root> storage_open(const std::string &output, bool force)
{
    std::unique_ptr<storage_root> root = std::make_unique<storage_root>();
    root->place = output_place_open(output, force);
    return root;
}

static void make_scratch(storage_root &root)
{
    const int directory = root.place->directory;
    root.scratch_name = make_hidden_folder(directory);
    root.scratch = openat(directory, root.scratch_name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root.scratch < 0) {
        fail(exit_code::output, root.scratch_name);
    }
}

static void use_storage_itself(storage_root &root)
{
    root.scratch = open(kStorageMount, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root.scratch < 0 || faccessat(root.scratch, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        throw failure(exit_code::storage, storage_refusal(errno));
    }
    if (flock(root.scratch, LOCK_EX | LOCK_NB) != 0) {
        throw failure(exit_code::storage, "another recording is using /mnt/sdcard");
    }
    root.record_name = "tdmbrec-" + std::to_string(getpid()) + ".mp4";
}

static void provide_folder(storage_root &root)
{
    make_scratch(root);
    root.record_name = "recording.mp4";
    if (!storage_show(root.scratch)) {
        storage_discard(root);
        close(root.scratch);
        root.scratch = -1;
        root.scratch_name.clear(); // what follows is the user's own folder
        use_storage_itself(root);
    }
}

void storage_provide(storage_root &root, bool card)
{
    provide_folder(root);
    if (card) {
        root.made_card = mkdirat(root.scratch, card_name, 0700) == 0;
        if (!root.made_card && errno != EEXIST) {
            fail(exit_code::storage, "the card cannot be provided");
        }
        root.record_name = std::string(card_name) + "/" + root.record_name;
        host_set_property(card_property, "available");
    }
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

uint64_t storage_recorded_bytes(const storage_root &root)
{
    struct stat status = {};
    return fstatat(root.scratch, root.record_name.c_str(), &status, 0) == 0
               ? static_cast<uint64_t>(status.st_size)
               : 0;
}

int storage_open_recording(const storage_root &root)
{
    return openat(root.scratch, root.record_name.c_str(), O_RDONLY | O_CLOEXEC);
}

static bool copy_bytes(int from, int to)
{
    ssize_t copied = 0;
    do {
        copied = sendfile(to, from, nullptr, 1 << 24);
    } while (copied > 0 || (copied < 0 && errno == EINTR));
    return copied == 0 && fsync(to) == 0;
}

// The way to another file system: a copy under another name that then takes its place.
static bool copy_to_place(const storage_root &root, int recording)
{
    const std::string name = ".tdmbrec-" + std::to_string(getpid()) + ".mp4";
    const int directory = root.place->directory;
    const int copy = openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (copy < 0) {
        return false;
    }
    const bool placed =
        copy_bytes(recording, copy) && output_place_take(*root.place, directory, name);
    const int error = errno;
    close(copy);
    if (!placed) {
        unlinkat(directory, name.c_str(), 0);
    }
    errno = error;
    return placed;
}

std::string storage_keep(storage_root &root)
{
    const std::string kept =
        root.scratch_name.empty()
            ? storage_component_path(root)
            : root.scratch_name + "/" + root.record_name + " in the output's directory";
    root.record_name.clear(); // the recording is worth more than tidiness
    return kept;
}

void storage_publish(storage_root &root)
{
    const int recording = storage_open_recording(root);
    if (recording < 0) {
        fail(exit_code::component, "the recorder component left no file");
    }
    bool placed =
        fsync(recording) == 0 && output_place_take(*root.place, root.scratch, root.record_name);
    if (!placed && errno == EXDEV) {
        placed = copy_to_place(root, recording);
    }
    const int error = errno;
    close(recording);
    if (placed) {
        storage_discard(root);
        return;
    }
    const std::string kept = storage_keep(root);
    errno = error;
    fail(exit_code::output,
         "the recording cannot take the name " + root.place->name + " and stays as " + kept);
}

void storage_discard(storage_root &root)
{
    storage_hide();
    if (root.scratch < 0 || root.record_name.empty()) {
        return;
    }
    const bool on_card = root.record_name.find('/') != std::string::npos;
    const int folder = on_card ? openat(root.scratch, card_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                               : dup(root.scratch);
    if (root.scratch_name.empty()) {
        unlinkat(root.scratch, root.record_name.c_str(), 0);
        for (const char *const name : component_files) {
            unlinkat(folder, name, 0);
        }
    } else {
        remove_entries(folder);
    }
    close(folder);
    if (root.made_card) {
        unlinkat(root.scratch, card_name, AT_REMOVEDIR);
    }
    if (!root.scratch_name.empty()) {
        unlinkat(root.place->directory, root.scratch_name.c_str(), AT_REMOVEDIR);
    }
}

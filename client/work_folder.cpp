#include "client/work_folder.h"

#include "client/failure.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <sys/file.h>
#include <unistd.h>

static std::mutex folder_lock;           // held from an abort to the end of the process
static const work_folder *folder_in_use; // the only one of the command; under folder_lock

static constexpr char kFolderSuffix[] = ".part"; // after the output's name

// Marks a folder that a command has made. A folder without it belongs to someone else.
static constexpr char kMark[] = ".tdmbrec";

// Removes only the files that a command makes; a folder with any other file stays.
static void remove_folder(int directory, const locked_folder &folder)
{
    for (const char *const name : {kWorkStream, kWorkMovie, kWorkPage, kWorkNotes}) {
        unlinkat(folder.descriptor, name, 0);
    }
    for (const char *const name : kMuxTableNames) {
        unlinkat(folder.descriptor, name, 0);
    }
    unlinkat(folder.descriptor, kMark, 0);
    locked_folder_remove(directory, folder);
}

static void mark_folder(const locked_folder &folder)
{
    const int mark =
        openat(folder.descriptor, kMark, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (mark < 0) {
        fail_with_errno(exit_code::output, folder.name);
    }
    close(mark);
}

static bool is_marked(const locked_folder &folder)
{
    return faccessat(folder.descriptor, kMark, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

work_folder::~work_folder()
{
    const std::lock_guard<std::mutex> guard(folder_lock);
    folder_in_use = nullptr;
    if (folder.descriptor >= 0) {
        remove_folder(place->directory, folder);
        close(folder.descriptor);
    }
}

void work_folder_abort(void)
{
    folder_lock.lock();
    if (folder_in_use != nullptr) {
        remove_folder(folder_in_use->place->directory, folder_in_use->folder);
    }
}

// Nothing is lost: the same inputs give the same file again.
static void remove_left(const output_place &place)
{
    for (const std::string &name :
         locked_folder_names(place.directory, place.name, kFolderSuffix)) {
        found_folder found;
        if (locked_folder_find(found, place.directory, name, LOCK_EX) &&
            found.state == folder_state::left && is_marked(found.folder)) {
            remove_folder(place.directory, found.folder);
        }
    }
}

static void make_folder(work_folder &work)
{
    const std::lock_guard<std::mutex> guard(folder_lock);
    remove_left(*work.place);
    work.folder = locked_folder_make(work.place->directory, work.place->name, kFolderSuffix);
    folder_in_use = &work;
    mark_folder(work.folder);
}

std::unique_ptr<work_folder> work_folder_make(const std::string &output, bool force)
{
    std::unique_ptr<work_folder> folder = std::make_unique<work_folder>();
    folder->place = output_place_open(output, force);
    make_folder(*folder);
    return folder;
}

std::string work_folder_path(const work_folder &folder, const std::string &name)
{
    return "/proc/self/fd/" + std::to_string(folder.folder.descriptor) + "/" + name;
}

void work_folder_sync(const work_folder &folder, const std::string &name)
{
    const int file = openat(folder.folder.descriptor, name.c_str(), O_RDONLY | O_CLOEXEC);
    const bool synced = file >= 0 && fsync(file) == 0;
    const int error = errno;
    if (file >= 0) {
        close(file);
    }
    if (!synced) {
        errno = error;
        fail_with_errno(exit_code::output, folder.place->name);
    }
}

void work_folder_publish(const work_folder &folder, const std::string &name)
{
    if (!output_place_take(*folder.place, folder.folder.descriptor, name)) {
        fail_with_errno(exit_code::output, folder.place->name);
    }
}

work_file::work_file(const work_folder &folder, const std::string &name)
    : file(std::fopen(work_folder_path(folder, name).c_str(), "wbx"))
{
    if (file == nullptr) {
        fail_with_errno(exit_code::output, folder.place->name);
    }
}

work_file::~work_file()
{
    if (file != nullptr) {
        std::fclose(file);
    }
}

void work_file_write(work_file &out, std::span<const uint8_t> bytes)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), out.file) != bytes.size()) {
        fail_with_errno(exit_code::output, "the output cannot be written");
    }
    out.bytes += bytes.size();
}

void work_file_finish(work_file &out)
{
    const bool written = std::fflush(out.file) == 0;
    const bool closed = std::fclose(out.file) == 0;
    out.file = nullptr;
    if (!written || !closed) {
        fail_with_errno(exit_code::output, "the output cannot be written");
    }
}

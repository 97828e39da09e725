#include "client/work_folder.h"

#include "client/failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

// A command has one folder at most.
static std::mutex folder_lock;
static const work_folder *folder_in_use; // under folder_lock

[[noreturn]] static void fail(const std::string &what)
{
    throw failure(exit_code::output, what + ": " + std::strerror(errno));
}

static void remove_folder(const work_folder &folder)
{
    if (folder.descriptor >= 0) {
        remove_entries(folder.descriptor);
    }
    if (!folder.name.empty()) {
        unlinkat(folder.place->directory, folder.name.c_str(), AT_REMOVEDIR);
    }
}

work_folder::~work_folder()
{
    const std::lock_guard<std::mutex> guard(folder_lock);
    folder_in_use = nullptr;
    remove_folder(*this);
    if (descriptor >= 0) {
        close(descriptor);
    }
}

void work_folder_give_up(void)
{
    folder_lock.lock(); // until the process is gone
    if (folder_in_use != nullptr) {
        remove_folder(*folder_in_use);
    }
}

static void make_folder(work_folder &folder)
{
    const std::lock_guard<std::mutex> guard(folder_lock);
    const int directory = folder.place->directory;
    folder.name = make_hidden_folder(directory);
    folder.descriptor = openat(directory, folder.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder.descriptor < 0) {
        fail(folder.name);
    }
    folder_in_use = &folder;
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
    return "/proc/self/fd/" + std::to_string(folder.descriptor) + "/" + name;
}

void work_folder_publish(const work_folder &folder, const std::string &name)
{
    if (!output_place_take(*folder.place, folder.descriptor, name)) {
        fail(folder.place->name);
    }
}

work_file::work_file(const work_folder &folder, const std::string &name)
    : file(std::fopen(work_folder_path(folder, name).c_str(), "wbx"))
{
    if (file == nullptr) {
        fail(folder.place->name);
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
        fail("the output cannot be written");
    }
    out.bytes += bytes.size();
}

void work_file_finish(work_file &out)
{
    const bool written = std::fflush(out.file) == 0;
    const bool closed = std::fclose(out.file) == 0;
    out.file = nullptr;
    if (!written || !closed) {
        fail("the output cannot be written");
    }
}

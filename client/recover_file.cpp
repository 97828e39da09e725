#include "client/recover_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

recover_file::~recover_file()
{
    if (descriptor >= 0) {
        close(descriptor);
    }
}

bool recover_file_open(recover_file &file, const std::string &path, bool to_write)
{
    // Without O_NONBLOCK a pipe would block here.
    const int mode = to_write ? O_RDWR : O_RDONLY;
    const int descriptor = open(path.c_str(), mode | O_CLOEXEC | O_NONBLOCK);
    struct stat status = {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        const int error = descriptor < 0 ? errno : S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        if (descriptor >= 0) {
            close(descriptor);
        }
        errno = error;
        return false;
    }
    file.descriptor = descriptor;
    file.path = path;
    return true;
}

bool recover_file_lock(const recover_file &file, bool to_write)
{
    const int lock = to_write ? LOCK_EX : LOCK_SH;
    return flock(file.descriptor, lock | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

static recover_file &file_of(void *context)
{
    return *static_cast<recover_file *>(context);
}

// returns: -1, the result of a failed callback
static int note_error(recover_file &file, int error)
{
    file.error = file.error == 0 ? error : file.error;
    return -1;
}

static int64_t read_at(void *context, int64_t offset, void *buffer, int64_t count)
{
    recover_file &file = file_of(context);
    int64_t done = 0;
    while (done < count) {
        const ssize_t got = pread(file.descriptor, static_cast<char *>(buffer) + done,
                                  static_cast<size_t>(count - done), offset + done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return note_error(file, errno);
        }
        if (got == 0) {
            break;
        }
        done += got;
    }
    return done;
}

static int64_t file_size(void *context)
{
    struct stat status = {};
    return fstat(file_of(context).descriptor, &status) == 0 ? static_cast<int64_t>(status.st_size)
                                                            : note_error(file_of(context), errno);
}

static int32_t write_at(void *context, int64_t offset, const void *bytes, int64_t count)
{
    recover_file &file = file_of(context);
    int64_t done = 0;
    while (done < count) {
        const ssize_t put = pwrite(file.descriptor, static_cast<const char *>(bytes) + done,
                                   static_cast<size_t>(count - done), offset + done);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return note_error(file, put < 0 ? errno : ENOSPC);
        }
        done += put;
    }
    return 0;
}

static int32_t set_size(void *context, int64_t bytes)
{
    recover_file &file = file_of(context);
    return ftruncate(file.descriptor, bytes) == 0 ? 0 : note_error(file, errno);
}

static int32_t sync_file(void *context)
{
    recover_file &file = file_of(context);
    return fsync(file.descriptor) == 0 ? 0 : note_error(file, errno);
}

recovery_source_t recover_file_source(recover_file &file)
{
    return {.context = &file, .read_at = read_at, .size = file_size};
}

recovery_target_t recover_file_target(recover_file &file)
{
    return {.context = &file, .write_at = write_at, .set_size = set_size, .sync = sync_file};
}

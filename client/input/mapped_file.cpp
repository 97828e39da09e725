#include "client/input/mapped_file.h"

#include "client/failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

mapped_file::~mapped_file()
{
    if (!bytes.empty()) {
        munmap(const_cast<uint8_t *>(bytes.data()), bytes.size());
    }
}

std::unique_ptr<mapped_file> mapped_file_of(int descriptor)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
        return nullptr;
    }
    std::unique_ptr<mapped_file> file = std::make_unique<mapped_file>();
    const size_t size = static_cast<size_t>(status.st_size);
    if (size == 0) {
        return file;
    }
    void *const memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    file->bytes = {static_cast<const uint8_t *>(memory), size};
    return file;
}

std::unique_ptr<mapped_file> mapped_file_open(const std::string &path)
{
    // Without O_NONBLOCK a pipe would block here. mapped_file_of() refuses it.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    std::unique_ptr<mapped_file> file = descriptor >= 0 ? mapped_file_of(descriptor) : nullptr;
    const int error = errno;
    if (descriptor >= 0) {
        close(descriptor);
    }
    if (file == nullptr) {
        throw failure(exit_code::input,
                      path + ": " +
                          (error == ESPIPE ? "is not a regular file" : std::strerror(error)));
    }
    return file;
}

void mapped_file_release(const mapped_file &file)
{
    if (!file.bytes.empty()) {
        (void)madvise(const_cast<uint8_t *>(file.bytes.data()), file.bytes.size(), MADV_DONTNEED);
    }
}

// A file's bytes as they lie on the disk; what is not looked at is not read.
#ifndef CLIENT_INPUT_MAPPED_FILE_H
#define CLIENT_INPUT_MAPPED_FILE_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

struct mapped_file {
    std::span<const uint8_t> bytes;

    mapped_file() = default;
    mapped_file(const mapped_file &) = delete;
    mapped_file &operator=(const mapped_file &) = delete;
    ~mapped_file();
};

// Maps an open regular file, which may be closed then. returns null with errno when it cannot.
std::unique_ptr<mapped_file> mapped_file_of(int descriptor);

// The same by name. throws `failure`.
std::unique_ptr<mapped_file> mapped_file_open(const std::string &path);

// Takes the bytes read so far out of the process's memory; they are read again where needed.
void mapped_file_release(const mapped_file &file);

#endif // CLIENT_INPUT_MAPPED_FILE_H

// A file mapped into memory: only the pages that are used are read.
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

// in: an open regular file, which may be closed afterwards
// returns: its mapping, or null with errno set
std::unique_ptr<mapped_file> mapped_file_of(int descriptor);

// As above, for a path.
// returns: the mapping
// throws: `failure`
std::unique_ptr<mapped_file> mapped_file_open(const std::string &path);

// Drops the pages read so far from the process's memory; they are read again when they are used.
void mapped_file_release(const mapped_file &file);

#endif // CLIENT_INPUT_MAPPED_FILE_H

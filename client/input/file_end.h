// Finds files that end earlier than their own structure says, which demuxers report as a normal
// end.
#ifndef CLIENT_INPUT_FILE_END_H
#define CLIENT_INPUT_FILE_END_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>

// Fills the bytes from a position in the file.
// returns: false when they cannot be read
using byte_reader = std::function<bool(int64_t position, std::span<uint8_t> bytes)>;

// in: the demuxer's name of the format, the file and its size
// returns: what is cut off; empty for a file that is complete as far as its format shows, and as
//          far as its bytes can be read
std::string file_cut_text(const char *format, const byte_reader &file, int64_t size);

// As above, for an open file.
std::string file_cut_text(const char *format, int file, int64_t size);

#endif // CLIENT_INPUT_FILE_END_H

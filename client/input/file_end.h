// Finds files that end earlier than their own structure says, which demuxers report as a normal
// end.
#ifndef CLIENT_INPUT_FILE_END_H
#define CLIENT_INPUT_FILE_END_H

#include <cstdint>
#include <string>

// in: the demuxer's name of the format, the open file and its size
// returns: what is cut off; empty for a file that is complete as far as its format shows
std::string file_cut_text(const char *format, int file, int64_t size);

#endif // CLIENT_INPUT_FILE_END_H

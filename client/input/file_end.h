// Whether a media file ends earlier than its own structure says, which demuxers take for an end.
#ifndef CLIENT_INPUT_FILE_END_H
#define CLIENT_INPUT_FILE_END_H

#include <cstdint>
#include <string>

// in: the demuxer's name of the format, the open file and its size.
// returns what the file lacks; empty for one that is whole, as far as its format can tell.
std::string file_cut_text(const char *format, int file, int64_t size);

#endif // CLIENT_INPUT_FILE_END_H

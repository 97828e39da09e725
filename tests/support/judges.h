// Players and decoders that judge a recorded file as black boxes.
#ifndef TESTS_SUPPORT_JUDGES_H
#define TESTS_SUPPORT_JUDGES_H

#include "tests/support/programme.h"

#include <string>
#include <utility>

// Runs a shell command.
// returns: its exit status and the bytes of its standard output
std::pair<int, Bytes> run(const std::string &command);

bool has_ffmpeg();

// Runs ffprobe and strict decodes of every stream, with both AAC decoders.
// returns: their messages; empty for a valid file
std::string complaints_of_ffmpeg(const std::string &path);

#endif // TESTS_SUPPORT_JUDGES_H

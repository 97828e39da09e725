// Players and decoders that judge a recorded file as black boxes.
#ifndef TESTS_SUPPORT_JUDGES_H
#define TESTS_SUPPORT_JUDGES_H

#include "tests/support/programme.h"

#include <string>
#include <utility>

// Runs a shell command. returns its exit status and what it wrote to standard output, byte by byte.
std::pair<int, Bytes> run(const std::string &command);

bool has_ffmpeg();

// What ffprobe and a strict decode of every stream, with both AAC decoders, say of a file; empty
// when they say nothing.
std::string complaints_of_ffmpeg(const std::string &path);

#endif // TESTS_SUPPORT_JUDGES_H

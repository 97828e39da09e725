// A directory of its own for each test of the command, and ways to run shell lines in it.
#ifndef TESTS_CLIENT_COMMAND_TEST_H
#define TESTS_CLIENT_COMMAND_TEST_H

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#define TDMBREC TDMBREC_COMMAND " "
#define SAMPLE "--video programme.h264 --audio programme.wav "
#define TIMED_SAMPLE "-fflags +genpts -r 30 -i programme.h264 "

using name_set = std::set<std::string>;

inline const name_set SAMPLE_ALONE = {"programme.h264", "programme.wav"};

struct command_result {
    int status; // exit code, or 1000 plus the signal that killed it
    std::string out;
    std::string err;
};

bool contains(const std::string &text, const std::string &part);

// The directory holds the sample as programme.h264 and .wav.
class command : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Runs a shell command line in the directory. Words come from the tests alone.
    command_result shell(const std::string &line);
    command_result ffmpeg(const std::string &arguments);

    // Runs the command with a mistake in its line, and expects the exit code, a sentence on
    // standard error, and nothing else.
    void expect_refused(const std::string &line, int status, const std::string &sentence);

    // The names in the directory, hidden ones included.
    name_set names() const;

    std::filesystem::path directory;
};

#endif

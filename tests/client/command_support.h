// Runs the command, and ffmpeg to make and to judge files.
#ifndef TESTS_CLIENT_COMMAND_SUPPORT_H
#define TESTS_CLIENT_COMMAND_SUPPORT_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

struct command_result {
    int status; // exit code, or 1000 plus the signal that killed it
    std::string out;
    std::string err;
};

// Runs a shell command line in the directory. Words come from the tests alone.
command_result run_shell(const std::filesystem::path &directory, const std::string &line);

// The names in a directory, hidden ones included, in order.
std::vector<std::string> names_in(const std::filesystem::path &directory);

// Each test works in a directory of its own, which holds the sample as programme.h264 and .wav.
class command : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the command with these arguments and settings of the environment.
    command_result record(const std::string &arguments, const std::string &environment = "");
    command_result ffmpeg(const std::string &arguments);
    // The video of a file, decoded: one line per picture with its checksum.
    std::string pictures(const std::string &file);

    std::filesystem::path directory;
    std::vector<std::string> inputs; // what the directory held before the command ran
};

inline constexpr char SAMPLE[] = "--video programme.h264 --audio programme.wav ";

#endif

// Gives each test of the command its own directory, and runs shell lines in it.
#ifndef TESTS_CLIENT_COMMAND_TEST_H
#define TESTS_CLIENT_COMMAND_TEST_H

#include "tests/support/own_files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/wait.h>

#define TDMBREC TDMBREC_COMMAND " "
#define RECORD TDMBREC "record "
#define SCRIPTED "TDMBREC_COMPONENT_PATH=" SCRIPTED_COMPONENT
#define SAMPLE "--video programme.h264 --audio programme.wav "
#define TIMED_SAMPLE "-fflags +genpts -r 30 -i programme.h264 "

// In a shell line: waits until a command has begun to write below a folder.
#define AWAIT_OUTPUT(folder)                                                                       \
    "for i in $(seq 3000); do find " folder " -type f ! -name \"*.wav\" ! -name \"*.h264\" "       \
    "! -name a.mp4 | grep . && break; sleep 0.1; done >&2; "

using name_set = std::set<std::string>;

inline const name_set kSampleAlone = {"programme.h264", "programme.wav"};

struct command_result {
    int status; // exit code, or 1000 plus the signal that killed it
    std::string out;
    std::string err;
};

inline bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

inline std::string take_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::filesystem::remove(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The directory holds the sample as programme.h264 and .wav.
class CommandTest : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string place = (std::filesystem::temp_directory_path() / "tdmbrec-XXXXXX").string();
        ASSERT_NE(mkdtemp(place.data()), nullptr);
        directory = place;
        setenv("TDMBREC_BUILD", kBuildFolder.c_str(), 1); // for TDMBREC_COMMAND and the like
        for (const std::string &name : kSampleAlone) {
            std::filesystem::copy_file(source_file("samples/" + name), directory / name);
        }
    }

    void TearDown() override
    {
        std::filesystem::remove_all(directory);
    }

    // Runs a shell line in the directory. The words are the tests' own, and need no quotes.
    command_result shell(const std::string &line)
    {
        const std::string place = directory.string() + "-";
        const std::string whole = "cd '" + directory.string() + "' && { " + line + "\n} >'" +
                                  place + "out' 2>'" + place + "err' </dev/null";
        const int status = std::system(whole.c_str());
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        return {code, take_text(place + "out"), take_text(place + "err")};
    }

    command_result ffmpeg(const std::string &arguments)
    {
        return shell("ffmpeg -nostdin -v error -y " + arguments);
    }

    // The names in the directory, hidden ones included.
    name_set names() const
    {
        name_set found;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            found.insert(entry.path().filename().string());
        }
        return found;
    }

    std::filesystem::path directory;
};

#endif // TESTS_CLIENT_COMMAND_TEST_H

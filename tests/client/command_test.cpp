#include "tests/client/command_test.h"

#include <cstdlib>
#include <fstream>
#include <sys/wait.h>

namespace fs = std::filesystem;

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

static std::string take_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    fs::remove(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void command::SetUp()
{
    std::string place = (fs::temp_directory_path() / "tdmbrec-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(place.data()), nullptr);
    directory = place;
    for (const std::string &name : SAMPLE_ALONE) {
        fs::copy_file(fs::path(TDMBREC_SOURCE_DIR) / "samples" / name, directory / name);
    }
}

void command::TearDown()
{
    fs::remove_all(directory);
}

command_result command::shell(const std::string &line)
{
    const std::string place = directory.string() + "-";
    const std::string whole = "cd '" + directory.string() + "' && { " + line + "\n} >'" + place +
                              "out' 2>'" + place + "err' </dev/null";
    const int status = std::system(whole.c_str());
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    return {code, take_text(place + "out"), take_text(place + "err")};
}

command_result command::ffmpeg(const std::string &arguments)
{
    return shell("ffmpeg -nostdin -v error -y " + arguments);
}

void command::expect_refused(const std::string &line, int status, const std::string &sentence)
{
    const name_set before = names();
    const command_result result = shell(TDMBREC + line);
    EXPECT_EQ(result.status, status) << line << "\n" << result.err;
    EXPECT_TRUE(contains(result.err, sentence)) << line << "\n" << result.err;
    EXPECT_EQ(result.out, "") << line;
    EXPECT_EQ(names(), before) << line;
}

name_set command::names() const
{
    name_set found;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
        found.insert(entry.path().filename().string());
    }
    return found;
}

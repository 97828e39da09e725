#include "tests/client/command_support.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string read_text(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

command_result run_shell(const fs::path &directory, const std::string &line)
{
    std::string place = (fs::temp_directory_path() / "tdmbrec-out-XXXXXX").string();
    if (mkdtemp(place.data()) == nullptr) {
        return {-1, "", "no temporary directory"};
    }
    const std::string whole = "cd '" + directory.string() + "' && { " + line + "\n} >'" + place +
                              "/out' 2>'" + place + "/err' </dev/null";
    const int status = std::system(whole.c_str());
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    command_result result = {code, read_text(place + "/out"), read_text(place + "/err")};
    fs::remove_all(place);
    return result;
}

std::vector<std::string> names_in(const fs::path &directory)
{
    std::vector<std::string> names;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void command::SetUp()
{
    std::string place = (fs::temp_directory_path() / "tdmbrec-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(place.data()), nullptr);
    directory = place;
    for (const char *const name : {"programme.h264", "programme.wav"}) {
        fs::copy_file(fs::path(TDMBREC_SOURCE_DIR) / "samples" / name, directory / name);
    }
}

void command::TearDown()
{
    fs::remove_all(directory);
}

command_result command::record(const std::string &arguments, const std::string &environment)
{
    inputs = names_in(directory);
    return run_shell(directory, environment + " " TDMBREC_COMMAND " record " + arguments);
}

command_result command::ffmpeg(const std::string &arguments)
{
    return run_shell(directory, "ffmpeg -nostdin -v error -y " + arguments);
}

std::string command::pictures(const std::string &file)
{
    const command_result result = ffmpeg("-i " + file +
                                         " -map 0:v -f framehash -hash crc32 - | "
                                         "grep -v '^#' | awk '{print $NF}'");
    EXPECT_EQ(result.err, "");
    return result.out;
}

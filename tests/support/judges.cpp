#include "tests/support/judges.h"

#include <array>
#include <cstddef>
#include <cstdio>

std::pair<int, Bytes> run(const std::string &command)
{
    Bytes output;
    FILE *const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return {-1, output};
    }
    std::array<uint8_t, 65536> block;
    size_t got = 0;
    while ((got = fread(block.data(), 1, block.size(), pipe)) > 0) {
        output.insert(output.end(), block.begin(),
                      block.begin() + static_cast<std::ptrdiff_t>(got));
    }
    return {pclose(pipe), output};
}

bool has_ffmpeg()
{
    return run("command -v ffmpeg ffprobe").first == 0;
}

std::string complaints_of_ffmpeg(const std::string &path)
{
    const std::string strict = "ffmpeg -nostdin -v error -xerror -err_detect explode ";
    std::string complaints;
    for (const std::string &command : {"ffprobe -v warning -count_packets " + path + " 2>&1",
                                       strict + "-i " + path + " -f null - 2>&1",
                                       strict + "-c:a aac_fixed -i " + path + " -f null - 2>&1"}) {
        const auto [status, output] = run(command);
        if (status != 0 || !output.empty()) {
            complaints += command + ": " + std::string(output.begin(), output.end()) + "\n";
        }
    }
    return complaints;
}

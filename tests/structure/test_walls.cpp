// The walls between the subsystems: who may include what.
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fs = std::filesystem;

struct Include {
    std::string file; // from the root
    std::string target;
    bool is_quoted;
};

// The target of an include line, in its quotes or brackets; empty for any other line.
static std::string include_target(const std::string &line)
{
    const size_t begin = line.find_first_of("\"<");
    if (line.compare(0, 8, "#include") != 0 || begin == std::string::npos) {
        return "";
    }
    const size_t end = line.find_first_of("\">", begin + 1);
    return end == std::string::npos ? "" : line.substr(begin, end - begin);
}

static std::vector<Include> includes_below(const std::string &folder)
{
    const fs::path root = TDMBREC_SOURCE_DIR;
    std::vector<Include> includes;
    for (const auto &entry : fs::recursive_directory_iterator(root / folder)) {
        if (entry.path().extension() != ".cpp" && entry.path().extension() != ".h") {
            continue;
        }
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);) {
            const std::string target = include_target(line);
            if (!target.empty()) {
                includes.push_back({fs::relative(entry.path(), root).string(), target.substr(1),
                                    target[0] == '"'});
            }
        }
    }
    return includes;
}

static void expect_includes(const std::string &folder,
                            const std::function<bool(const Include &)> &is_allowed)
{
    const std::vector<Include> includes = includes_below(folder);
    EXPECT_FALSE(includes.empty()) << folder;
    for (const Include &include : includes) {
        EXPECT_TRUE(is_allowed(include)) << include.file << " includes " << include.target;
    }
}

static bool begins_with(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

TEST(Walls, TheEnginesIncludeThemselvesAndTheStandardLibraryOnly)
{
    for (const std::string engine : {"mp4mux", "aacenc"}) {
        expect_includes(engine, [&](const Include &include) {
            return include.is_quoted
                       ? begins_with(include.target, engine + "/")
                       : include.target.find('/') == std::string::npos &&
                             include.target != "unistd.h" && include.target != "pthread.h";
        });
    }
}

TEST(Walls, TheComponentReachesTheEnginesByTheirPublicHeaders)
{
    expect_includes("component", [](const Include &include) {
        return !include.is_quoted || begins_with(include.target, "component/") ||
               (begins_with(include.target, "platform/") &&
                !begins_with(include.target, "platform/host/")) ||
               include.target == "mp4mux/mp4_mux.h" || include.target == "aacenc/aac_enc.h";
    });
}

TEST(Walls, ThePlatformKnowsNothingOfItsUsers)
{
    expect_includes("platform", [](const Include &include) {
        return !include.is_quoted || begins_with(include.target, "platform/");
    });
}

TEST(Walls, TheClientKnowsTheStandardTheEnginesAndTheControlOfTheStandInOnly)
{
    expect_includes("client", [](const Include &include) {
        return !include.is_quoted || begins_with(include.target, "client/") ||
               include.target == "platform/omx_il.h" ||
               include.target == "mp4mux/mp4_mux.h" || include.target == "aacenc/aac_enc.h" ||
               include.target == "platform/host/host_control.h";
    });
}

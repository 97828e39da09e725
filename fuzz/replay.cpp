// Runs a harness over files and over the files of folders, where there is no fuzzer.
#include "fuzz/input.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

static void replay(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const Bytes input{std::istreambuf_iterator<char>(file), {}};
    std::fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (!fs::is_directory(argv[i])) {
            replay(argv[i]);
            continue;
        }
        for (const fs::directory_entry &entry : fs::directory_iterator(argv[i])) {
            replay(entry.path());
        }
    }
    return argc > 1 ? 0 : 2;
}

// Runs a harness on files in a build without a fuzzer.
#include "fuzz/input.h"

#include <fstream>
#include <iterator>

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        std::fprintf(stderr, "%s\n", argv[i]);
        std::ifstream file(argv[i], std::ios::binary);
        const Bytes bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return argc > 1 ? 0 : 2;
}

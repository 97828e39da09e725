// What the harnesses share: the input as a sequence of numbers, and the check of a promise.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// Takes the input from its front. After its end every number is zero.
struct fuzz_input {
    std::span<const uint8_t> left;

    std::span<const uint8_t> take(size_t count)
    {
        const std::span<const uint8_t> taken = left.first(std::min(count, left.size()));
        left = left.subspan(taken.size());
        return taken;
    }

    Bytes bytes(size_t count)
    {
        const std::span<const uint8_t> taken = take(count);
        return {taken.begin(), taken.end()};
    }

    // A big-endian number of 1 to 8 bytes.
    uint64_t number(size_t width)
    {
        uint64_t value = 0;
        for (const uint8_t byte : take(width)) {
            value = value << 8 | byte;
        }
        return value;
    }

    uint32_t u8()
    {
        return static_cast<uint32_t>(number(1));
    }

    uint32_t u16()
    {
        return static_cast<uint32_t>(number(2));
    }
};

// Ends the program with a message unless the promise holds.
inline void require(bool holds, const std::string &promise)
{
    if (!holds) {
        std::fprintf(stderr, "broken promise: %s\n", promise.c_str());
        std::abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

#endif // FUZZ_INPUT_H

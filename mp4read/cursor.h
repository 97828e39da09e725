// A reading position in bytes, for the big-endian numbers of MP4 boxes.
#ifndef MP4READ_CURSOR_H
#define MP4READ_CURSOR_H

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace mp4_reader {

using bytes = std::span<const uint8_t>;

// Reading past the end gives zeros and sets `overrun`.
struct cursor {
    bytes data; // still to be read
    bool overrun = false;

    bytes take(uint64_t count)
    {
        overrun = overrun || count > data.size();
        const bytes taken = data.first(std::min<size_t>(static_cast<size_t>(count), data.size()));
        data = data.subspan(taken.size());
        return taken;
    }
    uint64_t number(size_t width)
    {
        uint64_t value = 0;
        for (const uint8_t byte : take(width)) {
            value = value << 8 | byte;
        }
        return value;
    }
    uint32_t u32(size_t width = 4)
    {
        return static_cast<uint32_t>(number(width));
    }
    std::string text()
    {
        const bytes characters = take(4);
        return {characters.begin(), characters.end()};
    }
    bool is_used_up() const
    {
        return !overrun && data.empty();
    }
};

inline std::vector<uint8_t> copy(bytes from)
{
    return {from.begin(), from.end()};
}

} // namespace mp4_reader

#endif // MP4READ_CURSOR_H

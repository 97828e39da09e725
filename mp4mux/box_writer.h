// The writing of boxes: types, and sizes that are patched when a box is complete.
//
// A box begins with a 32-bit 0 in place of its size. update_size writes the size into the cache
// while the box's start is there, and seeks back in the file otherwise.
#ifndef MP4MUX_BOX_WRITER_H
#define MP4MUX_BOX_WRITER_H

#include "mp4mux/bitstream.h"

#include <bit>
#include <cstdint>

inline constexpr int32_t kSizeFieldBytes = 4;
inline constexpr int32_t kBoxHeaderBytes = 8;      // size and type
inline constexpr int32_t kFullBoxHeaderBytes = 12; // with version and flags

static_assert(std::endian::native == std::endian::little,
              "four-character codes are held in memory order and written as little-endian words");

// The four characters of a code in memory order.
[[nodiscard]] constexpr uint32_t fourcc(const char (&code)[5])
{
    uint32_t value = 0;
    for (int i = 3; i >= 0; i--) {
        value = value << 8 | static_cast<uint8_t>(code[i]);
    }
    return value;
}

// Writes the characters of a terminated text, without the terminator.
// returns: 0; failures are in the error record
int32_t mp4_mux_bs_write_tag(mp4_mux_bs_t *bs, const char *text);

// Writes up to four characters of a code, in memory order, up to a zero byte.
void write_code(mp4_mux_bs_t *bs, uint32_t code);

// Writes a size placeholder and the box's type.
// returns: file position of the box
[[nodiscard]] int64_t begin_box(mp4_mux_bs_t *bs, const char *type);

// returns: whether the 32-bit value at a file position is still in the cache
[[nodiscard]] bool is_in_cache(const mp4_mux_bs_t *bs, int64_t position);

// Overwrites a 32-bit value for which is_in_cache holds.
void patch_in_cache(mp4_mux_bs_t *bs, int64_t position, uint32_t value);

// Writes the size of the box that starts at the given position and ends at the current one.
// returns: the size, or the error record's code after a failed patch: the bitstream is after the
//          box even then, and is marked as torn when the size is missing. Tags: "<update_size1",
//          "<update_size2", "<update_size3".
[[nodiscard]] int32_t update_size(mp4_mux_bs_t *bs, int64_t start);

#endif // MP4MUX_BOX_WRITER_H

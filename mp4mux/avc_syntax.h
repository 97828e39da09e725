// The part of the H.264 syntax that the muxer reads.
// source: ITU-T H.264, 7.3.1
#ifndef MP4MUX_AVC_SYNTAX_H
#define MP4MUX_AVC_SYNTAX_H

#include <cstddef>
#include <cstdint>
#include <span>

using nal_unit = std::span<const uint8_t>;

enum {
    kNalTypeSps = 7,
    kNalTypePps = 8,
};

// Bytes of the length in front of each NAL unit of a frame.
inline constexpr size_t kNalLengthBytes = 4;

// An SPS must hold its profile, constraint flags and level: bytes 1 to 3.
inline constexpr size_t kMinSpsBytes = 4;

// in: unit: at least its header byte
[[nodiscard]] inline uint8_t nal_unit_type(nal_unit unit)
{
    return unit.front() & 0x1F;
}

#endif // MP4MUX_AVC_SYNTAX_H

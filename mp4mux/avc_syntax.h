// What the muxer reads of an H.264 NAL unit (ITU-T H.264, 7.3.1).
#ifndef MP4MUX_AVC_SYNTAX_H
#define MP4MUX_AVC_SYNTAX_H

#include <cstdint>
#include <span>

enum {
    kNalTypeSps = 7,
    kNalTypePps = 8,
};

// The type of a NAL unit that has at least its header byte.
[[nodiscard]] inline uint8_t nal_unit_type(std::span<const uint8_t> unit)
{
    return unit.front() & 0x1F;
}

// An SPS must reach beyond its profile, constraint flags and level: bytes 1 to 3.
inline constexpr uint32_t kMinSpsBytes = 4;

#endif // MP4MUX_AVC_SYNTAX_H

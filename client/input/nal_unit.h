// NAL units of H.264: how a stream separates them, and the syntax elements at their begin.
#ifndef CLIENT_INPUT_NAL_UNIT_H
#define CLIENT_INPUT_NAL_UNIT_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

// nal_unit_type
// source: ISO/IEC 14496-10, table 7-1
inline constexpr unsigned kNalSlice = 1, kNalPartitionA = 2, kNalPartitionC = 4, kNalIdr = 5,
                          kNalSps = 7, kNalPps = 8;

// in: a NAL unit that is not empty
inline unsigned nal_type(std::span<const uint8_t> nal)
{
    return nal[0] & 0x1Fu;
}

// out: the NAL units after the start codes, without trailing zeros; they point into the data
// returns: false when other bytes precede the first start code
[[nodiscard]] bool nal_split_at_start_codes(std::span<const uint8_t> data,
                                            std::vector<std::span<const uint8_t>> &nals);

// out: the NAL units after length fields of this size, as above
// returns: false when a length exceeds the data or a unit holds a start code
[[nodiscard]] bool nal_split_by_lengths(std::span<const uint8_t> data, unsigned length_bytes,
                                        std::vector<std::span<const uint8_t>> &nals);

// Takes one NAL unit after its big-endian length from the front of the data.
// returns: the unit; nothing when the data are cut
[[nodiscard]] std::optional<std::span<const uint8_t>>
nal_take_with_length(std::span<const uint8_t> &data, unsigned length_bytes);

// The first bits of a NAL unit, and the position in them.
struct nal_head {
    std::array<uint8_t, 24> payload = {}; // without NAL header and emulation prevention bytes
    size_t size_bits = 0;
    size_t at_bits = 0;
};

// in: the number of bytes to skip after the NAL header
nal_head nal_head_open(std::span<const uint8_t> nal, size_t skipped_bytes);

// returns: the next ue(v); nothing when it is cut or exceeds 32 bits
[[nodiscard]] std::optional<unsigned> nal_head_ue(nal_head &head);

// in: bits: at most 32
// returns: the next u(bits); nothing when it is cut
[[nodiscard]] std::optional<unsigned> nal_head_u(nal_head &head, unsigned bits);

#endif // CLIENT_INPUT_NAL_UNIT_H

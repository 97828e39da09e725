// The NAL units of a picture, each after its length of 4 bytes: what can be said about one from its
// first bytes, and where one is damaged.
// source: ITU-T H.264, 7.3.1, 7.4.1
#ifndef RECOVERY_PICTURE_UNITS_H
#define RECOVERY_PICTURE_UNITS_H

#include <cstdint>

inline constexpr int32_t kUnitLengthBytes = 4;
inline constexpr int32_t kUnitHeadBytes = 10; // length, header, and most of first_mb_in_slice

// nal_unit_type
// source: ITU-T H.264, Table 7-1
enum : uint32_t {
    kUnitSlice = 1,
    kUnitPartitionA = 2,
    kUnitIdrSlice = 5,
    kUnitSei = 6,
    kUnitSps = 7,
    kUnitPps = 8,
    kUnitDelimiter = 9,
    kUnitPrefix = 14,
    kUnitSubsetSps = 15
};

// The first bytes of a unit.
struct unit_head {
    int64_t unit_bytes; // after the length
    uint32_t type;
    bool is_reference;         // nal_ref_idc is not 0
    int32_t first_mb_in_slice; // -1: not a slice with one, or its bytes are not there
};

// Reads the head of a unit.
// in: count: fewer than kUnitHeadBytes where the data ends
// returns: false when no unit of a recording begins so
[[nodiscard]] bool read_unit_head(const uint8_t *bytes, int64_t count, unit_head *head);

[[nodiscard]] bool is_slice(uint32_t type);

// returns: whether first_mb_in_slice is at the begin of units of this type
[[nodiscard]] bool has_first_mb(uint32_t type);

// What a unit says about the picture that it follows.
enum unit_place { kUnitBelongs, kUnitBegins, kUnitUnknown };

// in: last_slice: the last unit of the picture with a first_mb_in_slice; null before the first one
// source: ITU-T H.264, 7.4.1.2.3 and 7.4.1.2.4, without arbitrary slice order
[[nodiscard]] unit_place place_unit(const unit_head *head, const unit_head *last_slice);

// returns: the offset of the first three bytes that no unit contains; count when there are none
[[nodiscard]] int64_t find_damage(const uint8_t *bytes, int64_t count);

#endif // RECOVERY_PICTURE_UNITS_H

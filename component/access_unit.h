// H.264 access units: from start codes to 32-bit big-endian lengths.
// source: ITU-T H.264, Annex B
#ifndef COMPONENT_ACCESS_UNIT_H
#define COMPONENT_ACCESS_UNIT_H

#include <cstdint>

inline constexpr uint32_t kStartCodeBytes = 4;  // of the long form
inline constexpr uint32_t kUnitLengthBytes = 4; // of the length that takes the code's place
inline constexpr uint32_t kLeastSpsBytes = 4;   // header, profile, constraints, level

// nal_unit_type
// source: ITU-T H.264, Table 7-1
inline constexpr uint32_t kUnitTypeSps = 7;
inline constexpr uint32_t kUnitTypePps = 8;

// One unit, without its trailing zeros. Offsets are in bytes from the start of the data.
struct nal_unit_t {
    uint32_t start_code;
    uint32_t start;
    uint32_t end; // equals start when nothing follows the start code
};

// The parts of an access unit in start-code form. Leading parameter sets are those before the first
// unit of another type.
struct access_unit_t {
    uint32_t picture_offset;     // start code of the first other unit; the length without one
    uint32_t sps_count;          // leading ones
    uint32_t pps_count;          // leading ones
    uint32_t picture_unit_count; // units from picture_offset on
    bool has_slice;
    bool is_idr;                  // one of the units is an IDR slice
    bool has_valid_sps;           // a leading SPS is large enough for a decoder configuration
    bool has_short_start_codes;   // a start code of 3 bytes anywhere
    bool has_short_leading_codes; // one up to the first unit of the picture
    bool has_empty_units;         // a start code with nothing after it
};

// Describes length bytes of data.
// returns: false when they are no access unit: no start code at their start, or no unit after it
[[nodiscard]] bool describe_access_unit(const uint8_t *data, uint32_t length,
                                        access_unit_t *access_unit);

// returns: the number of leading parameter sets
[[nodiscard]] uint32_t count_leading_sets(const access_unit_t *access_unit);

// Takes the first unit at or after *at and advances *at to the end of its bytes.
// returns: false when there is none
[[nodiscard]] bool take_unit(const uint8_t *data, uint32_t length, uint32_t *at, nal_unit_t *unit);

// returns: nal_unit_type of a unit that is not empty
// source: ITU-T H.264, 7.3.1 nal_unit()
[[nodiscard]] uint32_t get_nal_type(const uint8_t *data, const nal_unit_t *unit);

// Replaces every start code in length bytes of data by the length of the unit after it. Zero bytes
// that trail a unit and units without a byte are left out.
// in: data: begins with a start code
// out: out: data itself when every start code has 4 bytes, else other memory with room for length
//      bytes and one for every unit
// returns: the bytes written
[[nodiscard]] uint32_t prefix_lengths(const uint8_t *data, uint32_t length, uint8_t *out);

// Copies the units in length bytes of data, each after a start code of 4 bytes; leaves out what
// prefix_lengths leaves out.
// out: out: other memory than data, with room for length bytes and one for every unit
// returns: the bytes written
[[nodiscard]] uint32_t copy_units(const uint8_t *data, uint32_t length, uint8_t *out);

// Writes a 32-bit big-endian number.
void write_be32(uint8_t *out, uint32_t value);

#endif // COMPONENT_ACCESS_UNIT_H

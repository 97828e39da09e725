// H.264 access units: from start codes (ITU-T H.264 Annex B) to 32-bit big-endian lengths.
#ifndef COMPONENT_ACCESS_UNIT_H
#define COMPONENT_ACCESS_UNIT_H

#include <cstdint>

#define START_CODE_BYTES 4
#define NAL_LENGTH_BYTES 4
#define NAL_TYPE_SLICE 1 // the first type of a slice
#define NAL_TYPE_IDR 5   // the last type of a slice
#define NAL_TYPE_SPS 7
#define NAL_TYPE_PPS 8
#define LEAST_SPS_BYTES 4           // header, profile, constraints, level
#define PARAMETER_SET_SCAN_BYTES 50 // parameter sets are captured from this much of a buffer

// One unit: where its start code begins, and its bytes without trailing zeros. Offsets are in bytes
// from the start of the data.
struct nal_unit_t {
    uint32_t uiStartCode;
    uint32_t uiStart;
    uint32_t uiEnd; // uiStart when nothing follows the start code
};

// What an access unit in start-code form is made of. Offsets are in bytes from its start.
struct access_unit_t {
    uint32_t uiPictureOffset; // start code of the first unit that is no parameter set in front; the
                              // access unit's length when there is none
    uint32_t uiSpsCount;      // parameter sets in front
    uint32_t uiPpsCount;
    uint32_t uiUnitCount;       // units from uiPictureOffset on
    uint32_t uiFrontUnitCount;  // parameter sets in front
    bool has_slice;             // one of the units is a slice
    bool is_idr;                // one of the units is an IDR slice
    bool has_valid_sps;         // an SPS in front that a decoder configuration can be built from
    bool has_short_start_codes; // a start code of 3 bytes anywhere
    bool has_short_front_codes; // one up to the picture's first unit
    bool has_empty_units;       // a start code with nothing behind it
};

// Describes `length` bytes of data.
// returns false when they are no access unit: no start code at their start, or no unit behind it.
[[nodiscard]] bool describe_access_unit(const uint8_t *data, uint32_t length,
                                        access_unit_t *access_unit);

// Takes the first unit at or after *at, and moves *at to the end of its bytes.
// returns false when there is none.
[[nodiscard]] bool take_unit(const uint8_t *data, uint32_t length, uint32_t *at, nal_unit_t *unit);

// Replaces every start code of `length` bytes at data, which begin with one, by the length of the
// unit behind it. Zero bytes that trail a unit, and units without a byte, are left out.
// in       out: data itself when every start code has 4 bytes, else other memory with room for
//          length bytes and one for every unit
// returns  the bytes written
[[nodiscard]] uint32_t prefix_lengths(const uint8_t *data, uint32_t length, uint8_t *out);

// Copies the units of `length` bytes at data with a start code of 4 bytes in front of each; leaves
// out what prefix_lengths leaves out.
// in       out: other memory than data, with room for length bytes and one for every unit
// returns  the bytes written
[[nodiscard]] uint32_t copy_units(const uint8_t *data, uint32_t length, uint8_t *out);

// Writes a 32-bit big-endian number.
void write_be32(uint8_t *out, uint32_t value);

#endif // COMPONENT_ACCESS_UNIT_H

#include "component/access_unit.h"

#include <cstring>

static constexpr uint32_t kShortStartCodeBytes = 3;
static constexpr uint32_t kNalTypeMask = 0x1F; // of the header byte
static constexpr uint32_t kFirstSliceType = 1; // a slice of a non-IDR picture
static constexpr uint32_t kNalTypeIdr = 5;     // and the last type of a slice

void write_be32(uint8_t *out, uint32_t value)
{
    out[0] = static_cast<uint8_t>(value >> 24);
    out[1] = static_cast<uint8_t>(value >> 16);
    out[2] = static_cast<uint8_t>(value >> 8);
    out[3] = static_cast<uint8_t>(value);
}

// returns: the offset of the first 00 00 01 at or after from, or length without one
static uint32_t find_start_code(const uint8_t *data, uint32_t from, uint32_t length)
{
    uint32_t at = from + 2; // of the byte 01
    while (at < length) {
        const void *const one = memchr(data + at, 1, length - at);
        if (one == nullptr) {
            break;
        }
        at = static_cast<uint32_t>(static_cast<const uint8_t *>(one) - data);
        if (data[at - 1] == 0 && data[at - 2] == 0) {
            return at - 2;
        }
        at++;
    }
    return length;
}

bool take_unit(const uint8_t *data, uint32_t length, uint32_t *at, nal_unit_t *unit)
{
    const uint32_t start_code = find_start_code(data, *at, length);
    if (start_code >= length) {
        return false;
    }
    const bool has_four_bytes = start_code > *at && data[start_code - 1] == 0;
    const uint32_t start = start_code + kShortStartCodeBytes;
    uint32_t end = find_start_code(data, start, length);
    while (end > start && data[end - 1] == 0) {
        end--;
    }
    *unit = {
        .start_code = has_four_bytes ? start_code - 1 : start_code, .start = start, .end = end};
    *at = end; // a zero after the unit may belong to the next start code
    return true;
}

uint32_t get_nal_type(const uint8_t *data, const nal_unit_t *unit)
{
    return data[unit->start] & kNalTypeMask;
}

uint32_t count_leading_sets(const access_unit_t *access_unit)
{
    return access_unit->sps_count + access_unit->pps_count;
}

static void count_leading_set(uint32_t type, const nal_unit_t *unit, access_unit_t *access_unit)
{
    if (type == kUnitTypePps) {
        access_unit->pps_count++;
        return;
    }
    access_unit->sps_count++;
    if (unit->end - unit->start >= kLeastSpsBytes) {
        access_unit->has_valid_sps = true;
    }
}

static void count_picture_unit(uint32_t type, const nal_unit_t *unit, access_unit_t *access_unit)
{
    if (access_unit->picture_unit_count == 0) {
        access_unit->picture_offset = unit->start_code;
    }
    access_unit->picture_unit_count++;
    if (type >= kFirstSliceType && type <= kNalTypeIdr) {
        access_unit->has_slice = true;
    }
    if (type == kNalTypeIdr) {
        access_unit->is_idr = true;
    }
}

static void count_unit(const uint8_t *data, const nal_unit_t *unit, access_unit_t *access_unit)
{
    const bool is_leading = access_unit->picture_unit_count == 0;
    if (unit->start - unit->start_code < kStartCodeBytes) {
        access_unit->has_short_start_codes = true;
        access_unit->has_short_leading_codes = access_unit->has_short_leading_codes || is_leading;
    }
    if (unit->start == unit->end) {
        access_unit->has_empty_units = true;
        return;
    }
    const uint32_t type = get_nal_type(data, unit);
    if (is_leading && (type == kUnitTypeSps || type == kUnitTypePps)) {
        count_leading_set(type, unit, access_unit);
    } else {
        count_picture_unit(type, unit, access_unit);
    }
}

bool describe_access_unit(const uint8_t *data, uint32_t length, access_unit_t *access_unit)
{
    *access_unit = {.picture_offset = length};
    const uint32_t first = find_start_code(data, 0, length);
    if (first >= length || first > 1 || data[0] != 0) {
        return false;
    }
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(data, length, &at, &unit);) {
        count_unit(data, &unit, access_unit);
    }
    return count_leading_sets(access_unit) + access_unit->picture_unit_count > 0;
}

// Writes every unit after its length or after a start code.
static uint32_t rewrite_units(const uint8_t *data, uint32_t length, bool has_lengths, uint8_t *out)
{
    uint32_t written = 0;
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(data, length, &at, &unit);) {
        const uint32_t unit_bytes = unit.end - unit.start;
        if (unit_bytes > 0) {
            // In place no unit moves up: its length takes no more room than its start code had.
            static_assert(kUnitLengthBytes == kStartCodeBytes);
            memmove(out + written + kUnitLengthBytes, data + unit.start, unit_bytes);
            write_be32(out + written, has_lengths ? unit_bytes : 1);
            written += kUnitLengthBytes + unit_bytes;
        }
    }
    return written;
}

uint32_t prefix_lengths(const uint8_t *data, uint32_t length, uint8_t *out)
{
    return rewrite_units(data, length, true, out);
}

uint32_t copy_units(const uint8_t *data, uint32_t length, uint8_t *out)
{
    return rewrite_units(data, length, false, out);
}

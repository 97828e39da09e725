#include "component/access_unit.h"

#include <cstring>

static constexpr uint32_t kShortStartCodeBytes = 3;

void write_be32(uint8_t *out, uint32_t value)
{
    out[0] = static_cast<uint8_t>(value >> 24);
    out[1] = static_cast<uint8_t>(value >> 16);
    out[2] = static_cast<uint8_t>(value >> 8);
    out[3] = static_cast<uint8_t>(value);
}

// The offset of the next 00 00 01 at or after `from`, or `length`.
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
    *unit = {.uiStartCode = has_four_bytes ? start_code - 1 : start_code,
             .uiStart = start,
             .uiEnd = end};
    *at = end; // not at the next start code, to which the zeros from here on may belong
    return true;
}

static void count_unit(const uint8_t *data, const nal_unit_t *unit, access_unit_t *access_unit)
{
    if (unit->uiStart - unit->uiStartCode < START_CODE_BYTES) {
        access_unit->has_short_start_codes = true;
        if (access_unit->uiUnitCount == 0) {
            access_unit->has_short_front_codes = true;
        }
    }
    if (unit->uiStart == unit->uiEnd) {
        access_unit->has_empty_units = true;
        return;
    }
    const uint32_t type = data[unit->uiStart] & 0x1F;
    const bool is_in_front = access_unit->uiUnitCount == 0;
    if (is_in_front && type == NAL_TYPE_SPS) {
        access_unit->uiSpsCount++;
        access_unit->uiFrontUnitCount++;
        if (unit->uiEnd - unit->uiStart >= LEAST_SPS_BYTES) {
            access_unit->has_valid_sps = true;
        }
    } else if (is_in_front && type == NAL_TYPE_PPS) {
        access_unit->uiPpsCount++;
        access_unit->uiFrontUnitCount++;
    } else {
        if (is_in_front) {
            access_unit->uiPictureOffset = unit->uiStartCode;
        }
        access_unit->uiUnitCount++;
        access_unit->has_slice =
            access_unit->has_slice || (type >= NAL_TYPE_SLICE && type <= NAL_TYPE_IDR);
        access_unit->is_idr = access_unit->is_idr || type == NAL_TYPE_IDR;
    }
}

bool describe_access_unit(const uint8_t *data, uint32_t length, access_unit_t *access_unit)
{
    *access_unit = {.uiPictureOffset = length};
    const uint32_t first = find_start_code(data, 0, length);
    if (first >= length || first > 1 || data[0] != 0) {
        return false;
    }
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(data, length, &at, &unit);) {
        count_unit(data, &unit, access_unit);
    }
    return access_unit->uiFrontUnitCount + access_unit->uiUnitCount > 0;
}

// Writes every unit after its length, or after a start code.
static uint32_t rewrite_units(const uint8_t *data, uint32_t length, bool has_lengths, uint8_t *out)
{
    uint32_t written = 0;
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(data, length, &at, &unit);) {
        const uint32_t unit_bytes = unit.uiEnd - unit.uiStart;
        if (unit_bytes > 0) {
            // In place the unit never moves up: its own start code had the room for the length.
            memmove(out + written + NAL_LENGTH_BYTES, data + unit.uiStart, unit_bytes);
            write_be32(out + written, has_lengths ? unit_bytes : 1);
            written += NAL_LENGTH_BYTES + unit_bytes;
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

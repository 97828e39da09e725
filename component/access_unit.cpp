#include "component/access_unit.h"

#include <cstring>

static constexpr uint32_t kShortStartCodeBytes = 3;

void write_be32(uint8_t *pOut, uint32_t value)
{
    pOut[0] = static_cast<uint8_t>(value >> 24);
    pOut[1] = static_cast<uint8_t>(value >> 16);
    pOut[2] = static_cast<uint8_t>(value >> 8);
    pOut[3] = static_cast<uint8_t>(value);
}

// The offset of the next 00 00 01 at or after `from`, or `length`.
static uint32_t find_start_code(const uint8_t *pData, uint32_t from, uint32_t length)
{
    uint32_t at = from + 2; // of the byte 01
    while (at < length) {
        const void *const pOne = memchr(pData + at, 1, length - at);
        if (pOne == nullptr) {
            break;
        }
        at = static_cast<uint32_t>(static_cast<const uint8_t *>(pOne) - pData);
        if (pData[at - 1] == 0 && pData[at - 2] == 0) {
            return at - 2;
        }
        at++;
    }
    return length;
}

bool take_unit(const uint8_t *pData, uint32_t length, uint32_t *pAt, nal_unit_t *pUnit)
{
    const uint32_t start_code = find_start_code(pData, *pAt, length);
    if (start_code >= length) {
        return false;
    }
    const bool has_four_bytes = start_code > *pAt && pData[start_code - 1] == 0;
    const uint32_t start = start_code + kShortStartCodeBytes;
    uint32_t end = find_start_code(pData, start, length);
    while (end > start && pData[end - 1] == 0) {
        end--;
    }
    *pUnit = {.uiStartCode = has_four_bytes ? start_code - 1 : start_code,
              .uiStart = start,
              .uiEnd = end};
    *pAt = end; // not at the next start code, to which the zeros from here on may belong
    return true;
}

static void count_unit(const uint8_t *pData, const nal_unit_t *pUnit, access_unit_t *pAccessUnit)
{
    if (pUnit->uiStart - pUnit->uiStartCode < START_CODE_BYTES) {
        pAccessUnit->has_short_start_codes = true;
        if (pAccessUnit->uiUnitCount == 0) {
            pAccessUnit->has_short_front_codes = true;
        }
    }
    if (pUnit->uiStart == pUnit->uiEnd) {
        pAccessUnit->has_empty_units = true;
        return;
    }
    const uint32_t type = pData[pUnit->uiStart] & 0x1F;
    const bool is_in_front = pAccessUnit->uiUnitCount == 0;
    if (is_in_front && type == NAL_TYPE_SPS) {
        pAccessUnit->uiSpsCount++;
        pAccessUnit->uiFrontUnitCount++;
        if (pUnit->uiEnd - pUnit->uiStart >= LEAST_SPS_BYTES) {
            pAccessUnit->has_valid_sps = true;
        }
    } else if (is_in_front && type == NAL_TYPE_PPS) {
        pAccessUnit->uiPpsCount++;
        pAccessUnit->uiFrontUnitCount++;
    } else {
        if (is_in_front) {
            pAccessUnit->uiPictureOffset = pUnit->uiStartCode;
        }
        pAccessUnit->uiUnitCount++;
        pAccessUnit->has_slice =
            pAccessUnit->has_slice || (type >= NAL_TYPE_SLICE && type <= NAL_TYPE_IDR);
        pAccessUnit->is_idr = pAccessUnit->is_idr || type == NAL_TYPE_IDR;
    }
}

bool describe_access_unit(const uint8_t *pData, uint32_t length, access_unit_t *pAccessUnit)
{
    *pAccessUnit = {.uiPictureOffset = length};
    const uint32_t first = find_start_code(pData, 0, length);
    if (first >= length || first > 1 || pData[0] != 0) {
        return false;
    }
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(pData, length, &at, &unit);) {
        count_unit(pData, &unit, pAccessUnit);
    }
    return pAccessUnit->uiFrontUnitCount + pAccessUnit->uiUnitCount > 0;
}

// Writes every unit after its length, or after a start code.
static uint32_t rewrite_units(const uint8_t *pData, uint32_t length, bool has_lengths,
                              uint8_t *pOut)
{
    uint32_t written = 0;
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(pData, length, &at, &unit);) {
        const uint32_t unit_bytes = unit.uiEnd - unit.uiStart;
        if (unit_bytes > 0) {
            // In place the unit never moves up: its own start code had the room for the length.
            memmove(pOut + written + NAL_LENGTH_BYTES, pData + unit.uiStart, unit_bytes);
            write_be32(pOut + written, has_lengths ? unit_bytes : 1);
            written += NAL_LENGTH_BYTES + unit_bytes;
        }
    }
    return written;
}

uint32_t prefix_lengths(const uint8_t *pData, uint32_t length, uint8_t *pOut)
{
    return rewrite_units(pData, length, true, pOut);
}

uint32_t copy_units(const uint8_t *pData, uint32_t length, uint8_t *pOut)
{
    return rewrite_units(pData, length, false, pOut);
}

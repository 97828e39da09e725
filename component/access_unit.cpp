#include "component/access_unit.h"

#include <cstring>

static constexpr uint32_t SHORT_START_CODE_BYTES = 3;
static constexpr uint32_t LEAST_SPS_BYTES = 4; // header, profile, constraints, level

// One unit: where its start code begins, and its bytes without trailing zeros.
typedef struct nal_unit_t {
    uint32_t uiStartCode;
    uint32_t uiStart;
    uint32_t uiEnd;
} nal_unit_t;

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

// Takes the unit whose 00 00 01 is at *pAt (at or behind `from`), and moves *pAt to the next one.
static nal_unit_t take_unit(const uint8_t *pData, uint32_t from, uint32_t length, uint32_t *pAt)
{
    nal_unit_t unit = {.uiStartCode = *pAt, .uiStart = *pAt + SHORT_START_CODE_BYTES, .uiEnd = 0};
    if (unit.uiStartCode > from && pData[unit.uiStartCode - 1] == 0) {
        unit.uiStartCode--;
    }
    *pAt = find_start_code(pData, unit.uiStart, length);
    unit.uiEnd = *pAt;
    while (unit.uiEnd > unit.uiStart && pData[unit.uiEnd - 1] == 0) {
        unit.uiEnd--;
    }
    return unit;
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
            pAccessUnit->has_sound_sps = true;
        }
    } else if (is_in_front && type == NAL_TYPE_PPS) {
        pAccessUnit->uiPpsCount++;
        pAccessUnit->uiFrontUnitCount++;
    } else {
        if (is_in_front) {
            pAccessUnit->uiPictureOffset = pUnit->uiStartCode;
        }
        pAccessUnit->uiUnitCount++;
        pAccessUnit->is_idr = pAccessUnit->is_idr || type == NAL_TYPE_IDR;
    }
}

bool describe_access_unit(const uint8_t *pData, uint32_t length, access_unit_t *pAccessUnit)
{
    *pAccessUnit = {.uiPictureOffset = length};
    uint32_t at = find_start_code(pData, 0, length);
    if (at >= length || at > 1 || pData[0] != 0) {
        return false;
    }
    while (at < length) {
        const nal_unit_t unit = take_unit(pData, 0, length, &at);
        count_unit(pData, &unit, pAccessUnit);
    }
    return pAccessUnit->uiFrontUnitCount + pAccessUnit->uiUnitCount > 0;
}

uint32_t prefix_lengths(const uint8_t *pData, uint32_t length, uint8_t *pOut)
{
    uint32_t written = 0;
    uint32_t at = find_start_code(pData, 0, length);
    while (at < length) {
        const nal_unit_t unit = take_unit(pData, 0, length, &at);
        const uint32_t unit_bytes = unit.uiEnd - unit.uiStart;
        if (unit_bytes > 0) {
            // In place the unit never moves up: its own start code had the room for the length.
            memmove(pOut + written + NAL_LENGTH_BYTES, pData + unit.uiStart, unit_bytes);
            write_be32(pOut + written, unit_bytes);
            written += NAL_LENGTH_BYTES + unit_bytes;
        }
    }
    return written;
}

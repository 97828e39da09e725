#include "component/parameter_sets.h"

#include "component/component_log.h"

#include <cstring>

static constexpr uint32_t kSpsIdOffset = 4; // after header, profile, constraints and level
static constexpr uint32_t kPpsIdOffset = 1; // after the header
static constexpr uint32_t kMaxIdZeros = 16; // a code that begins with more is no id

bool has_both_kinds(const access_unit_t *pAccessUnit)
{
    return pAccessUnit->has_valid_sps && pAccessUnit->uiPpsCount > 0;
}

static uint32_t type_of(const uint8_t *pData, const nal_unit_t *pUnit)
{
    return pData[pUnit->uiStart] & 0x1F;
}

// ue(v), plus 1, at the start of `count` bytes; after them everything is 0.
static uint32_t read_exp_golomb(const uint8_t *pBytes, uint32_t count)
{
    const auto bit = [&](uint32_t at) {
        return at / 8 < count ? (uint32_t{pBytes[at / 8]} >> (7 - at % 8)) & 1 : 0;
    };
    uint32_t zeros = 0;
    while (zeros <= kMaxIdZeros && bit(zeros) == 0) {
        zeros++;
    }
    uint32_t code = 0;
    for (uint32_t i = 0; i <= zeros; i++) {
        code = code << 1 | bit(zeros + i);
    }
    return code;
}

static uint32_t id_of(const uint8_t *pData, const nal_unit_t *pUnit)
{
    const uint32_t offset = type_of(pData, pUnit) == NAL_TYPE_SPS ? kSpsIdOffset : kPpsIdOffset;
    const uint32_t at = pUnit->uiStart + offset;
    return at < pUnit->uiEnd ? read_exp_golomb(pData + at, pUnit->uiEnd - at) : 0;
}

static void drop_same_set(omx_tdmbrec_component_PrivateType *pPrivate, uint32_t type, uint32_t id)
{
    uint8_t *const pSets = pPrivate->aucKeptSets;
    nal_unit_t kept;
    for (uint32_t at = 0; take_unit(pSets, pPrivate->uiKeptSetsLen, &at, &kept);) {
        if (type_of(pSets, &kept) == type && id_of(pSets, &kept) == id) {
            memmove(pSets + kept.uiStartCode, pSets + kept.uiEnd,
                    pPrivate->uiKeptSetsLen - kept.uiEnd);
            pPrivate->uiKeptSetsLen -= kept.uiEnd - kept.uiStartCode;
            return;
        }
    }
}

// returns where the set goes, or null when there is no room.
static uint8_t *make_room(omx_tdmbrec_component_PrivateType *pPrivate, uint32_t type,
                          uint32_t set_bytes)
{
    if (set_bytes > sizeof(pPrivate->aucKeptSets) - pPrivate->uiKeptSetsLen) {
        return nullptr;
    }
    uint8_t *const pSets = pPrivate->aucKeptSets;
    const uint32_t kept_bytes = pPrivate->uiKeptSetsLen;
    pPrivate->uiKeptSetsLen += set_bytes;
    if (type == NAL_TYPE_PPS) {
        return pSets + kept_bytes;
    }
    memmove(pSets + set_bytes, pSets, kept_bytes); // the others refer to it
    return pSets;
}

static void keep_set(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                     const nal_unit_t *pUnit)
{
    const uint32_t unit_bytes = pUnit->uiEnd - pUnit->uiStart;
    const uint32_t type = type_of(pData, pUnit);
    if (type == NAL_TYPE_SPS && unit_bytes < LEAST_SPS_BYTES) {
        return;
    }
    drop_same_set(pPrivate, type, id_of(pData, pUnit));
    uint8_t *const pTo = make_room(pPrivate, type, START_CODE_BYTES + unit_bytes);
    if (pTo == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "No room for a parameter set: %u bytes dropped\n", unit_bytes);
        return;
    }
    write_be32(pTo, 1);
    memcpy(pTo + START_CODE_BYTES, pData + pUnit->uiStart, unit_bytes);
}

void keep_parameter_sets(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                         const access_unit_t *pAccessUnit)
{
    const bool has_begun = pPrivate->bFileBegun != 0;
    if (has_begun && pPrivate->bInBandParameterSets == 0) {
        return;
    }
    if (pAccessUnit->uiUnitCount > 0) {
        if (pPrivate->iMuxOpenResult == 0 && pPrivate->bInBandParameterSets == 0 &&
            pPrivate->bOpenedBySetsAlone == 0) {
            return; // a picture has opened the file: sets in front of pictures are left out of it
        }
        if (!has_begun && has_both_kinds(pAccessUnit)) {
            forget_kept_sets(pPrivate);
            return;
        }
        if (has_begun && pPrivate->uiKeptSetsLen == 0) {
            return; // the file takes them with their picture
        }
    }
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(pData, pAccessUnit->uiPictureOffset, &at, &unit);) {
        if (unit.uiEnd > unit.uiStart) {
            keep_set(pPrivate, pData, &unit);
        }
    }
}

bool takes_kept_sets(const omx_tdmbrec_component_PrivateType *pPrivate,
                     const access_unit_t *pAccessUnit)
{
    access_unit_t kept;
    if (!pAccessUnit->has_slice ||
        !describe_access_unit(pPrivate->aucKeptSets, pPrivate->uiKeptSetsLen, &kept)) {
        return false;
    }
    return pPrivate->bFileBegun != 0 || has_both_kinds(&kept);
}

uint32_t join_kept_sets(const omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                        uint32_t length, const access_unit_t *pAccessUnit, uint8_t *pOut)
{
    memcpy(pOut, pPrivate->aucKeptSets, pPrivate->uiKeptSetsLen);
    return pPrivate->uiKeptSetsLen + copy_units(pData + pAccessUnit->uiPictureOffset,
                                                length - pAccessUnit->uiPictureOffset,
                                                pOut + pPrivate->uiKeptSetsLen);
}

void forget_kept_sets(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->uiKeptSetsLen = 0;
}

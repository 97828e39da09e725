#include "component/parameter_sets.h"

#include "component/component_log.h"
#include "component/losses.h"

#include <cstring>

static constexpr uint32_t kSpsIdOffset = kLeastSpsBytes;
static constexpr uint32_t kPpsIdOffset = 1; // after the header
static constexpr uint32_t kMaxIdZeros = 16; // a code with more leading zeros is no id

bool has_both_kinds(const access_unit_t *access_unit)
{
    return access_unit->has_valid_sps && access_unit->pps_count > 0;
}

// Reads ue(v); every bit after the count bytes is 0.
// returns: the number plus 1
// source: ITU-T H.264, 9.1
static uint32_t read_exp_golomb(const uint8_t *bytes, uint32_t count)
{
    const auto bit = [&](uint32_t at) {
        return at / 8 < count ? (uint32_t{bytes[at / 8]} >> (7 - at % 8)) & 1 : 0;
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

static uint32_t read_id(const uint8_t *data, const nal_unit_t *unit)
{
    const uint32_t offset = get_nal_type(data, unit) == kUnitTypeSps ? kSpsIdOffset : kPpsIdOffset;
    const uint32_t at = unit->start + offset;
    return at < unit->end ? read_exp_golomb(data + at, unit->end - at) : 0;
}

static void drop_same_set(omx_tdmbrec_component_PrivateType *self, uint32_t type, uint32_t id)
{
    uint8_t *const sets = self->aucKeptSets;
    nal_unit_t kept;
    for (uint32_t at = 0; take_unit(sets, self->uiKeptSetsLen, &at, &kept);) {
        if (get_nal_type(sets, &kept) == type && read_id(sets, &kept) == id) {
            memmove(sets + kept.start_code, sets + kept.end, self->uiKeptSetsLen - kept.end);
            self->uiKeptSetsLen -= kept.end - kept.start_code;
            return;
        }
    }
}

// Makes room for one more set; sequence parameter sets precede the picture parameter sets, which
// refer to them.
// returns: where the set goes, or null when there is no room
static uint8_t *make_room(omx_tdmbrec_component_PrivateType *self, uint32_t type,
                          uint32_t set_bytes)
{
    if (set_bytes > sizeof(self->aucKeptSets) - self->uiKeptSetsLen) {
        return nullptr;
    }
    uint8_t *const sets = self->aucKeptSets;
    const uint32_t kept_bytes = self->uiKeptSetsLen;
    self->uiKeptSetsLen += set_bytes;
    if (type == kUnitTypePps) {
        return sets + kept_bytes;
    }
    memmove(sets + set_bytes, sets, kept_bytes);
    return sets;
}

static void keep_set(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                     const nal_unit_t *unit)
{
    const uint32_t unit_bytes = unit->end - unit->start;
    const uint32_t type = get_nal_type(data, unit);
    if (type == kUnitTypeSps && unit_bytes < kLeastSpsBytes) {
        note_loss(self, kLostParameterSet);
        return;
    }
    drop_same_set(self, type, read_id(data, unit));
    uint8_t *const to = make_room(self, type, kStartCodeBytes + unit_bytes);
    if (to == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "No room for a parameter set: %u bytes dropped\n", unit_bytes);
        note_loss(self, kLostParameterSet);
        return;
    }
    write_be32(to, 1);
    memcpy(to + kStartCodeBytes, data + unit->start, unit_bytes);
}

void keep_parameter_sets(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                         const access_unit_t *access_unit)
{
    const bool has_begun = self->bFileBegun != 0;
    if (has_begun && self->bInBandParameterSets == 0) {
        return;
    }
    if (access_unit->picture_unit_count > 0) {
        if (self->iMuxOpenResult == 0 && self->bInBandParameterSets == 0 &&
            self->bOpenedBySetsAlone == 0) {
            return; // a picture has opened the file, which leaves out the sets before pictures
        }
        if (!has_begun && has_both_kinds(access_unit)) {
            forget_kept_sets(self);
            return;
        }
        if (has_begun && self->uiKeptSetsLen == 0) {
            return; // the file takes them with their picture
        }
    }
    nal_unit_t unit;
    for (uint32_t at = 0; take_unit(data, access_unit->picture_offset, &at, &unit);) {
        if (unit.end > unit.start) {
            keep_set(self, data, &unit);
        }
    }
}

bool takes_kept_sets(const omx_tdmbrec_component_PrivateType *self,
                     const access_unit_t *access_unit)
{
    access_unit_t kept;
    if (!access_unit->has_slice ||
        !describe_access_unit(self->aucKeptSets, self->uiKeptSetsLen, &kept)) {
        return false;
    }
    return self->bFileBegun != 0 || has_both_kinds(&kept);
}

uint32_t join_kept_sets(const omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                        uint32_t length, const access_unit_t *access_unit, uint8_t *out)
{
    memcpy(out, self->aucKeptSets, self->uiKeptSetsLen);
    return self->uiKeptSetsLen + copy_units(data + access_unit->picture_offset,
                                            length - access_unit->picture_offset,
                                            out + self->uiKeptSetsLen);
}

void forget_kept_sets(omx_tdmbrec_component_PrivateType *self)
{
    self->uiKeptSetsLen = 0;
}

#include "recovery/picture_units.h"

#include "recovery/media_walk.h"

#include <algorithm>

static constexpr uint32_t kFirstMbBits = 13; // most of the ue(v) of a first_mb_in_slice below 2^13

static uint32_t read_be32(const uint8_t *bytes)
{
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

// Types that occur in a recording: all that are not reserved or free for private use. Parameter
// sets and IDR slices are always references.
static bool is_unit_header(uint8_t header)
{
    const uint32_t type = header & 0x1F;
    const bool is_known = (type >= 1 && type <= 15) || type == 19 || type == 20;
    const bool needs_reference = type == kUnitIdrSlice || type == kUnitSps || type == kUnitPps;
    return (header & 0x80) == 0 && is_known && (!needs_reference || (header & 0x60) != 0);
}

bool is_slice(uint32_t type)
{
    return type >= kUnitSlice && type <= kUnitIdrSlice;
}

bool has_first_mb(uint32_t type)
{
    return type == kUnitSlice || type == kUnitPartitionA || type == kUnitIdrSlice;
}

// returns: the ue(v) at the begin of the bytes, -1 when it is too long or cut
static int32_t read_first_mb(const uint8_t *bytes, int64_t count)
{
    uint64_t bits = 0;
    for (int64_t i = 0; i < std::min<int64_t>(count, 5); i++) {
        bits |= uint64_t{bytes[i]} << (56 - 8 * i);
    }
    uint32_t zeros = 0;
    while (zeros < kFirstMbBits && bits >> 63 == 0) {
        bits <<= 1;
        zeros++;
    }
    if (zeros == kFirstMbBits || 2 * zeros + 1 > 8 * count) {
        return -1;
    }
    return static_cast<int32_t>(bits >> (63 - zeros)) - 1;
}

bool read_unit_head(const uint8_t *bytes, int64_t count, unit_head *head)
{
    if (count <= kUnitLengthBytes || !is_unit_header(bytes[kUnitLengthBytes])) {
        return false;
    }
    const uint8_t header = bytes[kUnitLengthBytes];
    *head = {.unit_bytes = read_be32(bytes),
             .type = header & 0x1FU,
             .is_reference = (header & 0x60) != 0,
             .first_mb_in_slice = -1};
    if (has_first_mb(head->type)) {
        const int64_t shown_bytes = std::min(count - kUnitLengthBytes, head->unit_bytes) - 1;
        head->first_mb_in_slice = read_first_mb(bytes + kUnitLengthBytes + 1, shown_bytes);
    }
    return head->unit_bytes >= (is_slice(head->type) ? 2 : 1);
}

unit_place place_unit(const unit_head *head, const unit_head *last_slice)
{
    if (last_slice == nullptr) {
        return kUnitBelongs;
    }
    if ((head->type >= kUnitSei && head->type <= kUnitDelimiter) || head->type == kUnitPrefix ||
        head->type == kUnitSubsetSps) {
        return kUnitBegins;
    }
    if (!has_first_mb(head->type)) {
        return kUnitBelongs;
    }
    const bool is_idr = head->type == kUnitIdrSlice;
    if (is_idr != (last_slice->type == kUnitIdrSlice) ||
        head->is_reference != last_slice->is_reference) {
        return kUnitBegins;
    }
    if (head->first_mb_in_slice < 0) {
        return kUnitUnknown;
    }
    const bool is_after = head->first_mb_in_slice > std::max(last_slice->first_mb_in_slice, 0);
    return is_after ? kUnitBelongs : kUnitBegins;
}

// Two zeros always include a byte at an odd offset, so that only these are looked at.
int64_t find_damage(const uint8_t *bytes, int64_t count)
{
    for (int64_t i = 1; i < count; i += 2) {
        if (bytes[i] != 0) {
            continue;
        }
        if (bytes[i - 1] == 0 && i + 1 < count && bytes[i + 1] <= 2) {
            return i - 1;
        }
        if (i + 2 < count && bytes[i + 1] == 0 && bytes[i + 2] <= 2) {
            return i;
        }
    }
    return count;
}

bool is_whole_picture(const uint8_t *bytes, int32_t count, bool takes_zero_ends)
{
    bool has_slice = false;
    for (int64_t at = 0; at < count;) {
        unit_head head;
        if (!read_unit_head(bytes + at, count - at, &head) ||
            head.unit_bytes > count - at - kUnitLengthBytes) {
            return false;
        }
        const uint8_t *const unit = bytes + at + kUnitLengthBytes;
        if (find_damage(unit, head.unit_bytes) < head.unit_bytes ||
            (unit[head.unit_bytes - 1] == 0 && !takes_zero_ends)) {
            return false;
        }
        has_slice = has_slice || is_slice(head.type);
        at += kUnitLengthBytes + head.unit_bytes;
    }
    return has_slice;
}

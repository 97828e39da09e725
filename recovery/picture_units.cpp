#include "recovery/picture_units.h"

#include "recovery/media_walk.h"

#include <algorithm>
#include <bit>
#include <cstring>

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

static_assert(std::endian::native == std::endian::little, "the first byte is the lowest one");

// returns: a word whose lowest bit that is set is in the first of 8 bytes that is zero; 0 without
// one
static uint64_t find_zero(const uint8_t *bytes)
{
    uint64_t word = 0;
    memcpy(&word, bytes, sizeof(word));
    return (word - 0x0101010101010101) & ~word & 0x8080808080808080;
}

int64_t find_damage(const uint8_t *bytes, int64_t count)
{
    static constexpr int64_t kWordBytes = 8;
    for (int64_t i = 0; i + 2 < count; i++) {
        if (i + kWordBytes <= count) {
            const uint64_t zero = find_zero(bytes + i);
            i += zero == 0 ? kWordBytes - 1 : std::countr_zero(zero) / 8;
        }
        if (i + 2 < count && bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] <= 2) {
            return i;
        }
    }
    return count;
}

bool are_whole_units(const uint8_t *bytes, int32_t count, bool takes_zero_ends)
{
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
        at += kUnitLengthBytes + head.unit_bytes;
    }
    return count > 0;
}

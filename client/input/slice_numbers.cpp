#include "client/input/slice_numbers.h"

#include "client/input/nal_unit.h"

#include <algorithm>

static constexpr unsigned kWidthMin = 4, kWidthMax = 16; // bits of either number

// The first slice of a picture.
struct slice_begin {
    bool is_idr;
    bool is_reference;
    unsigned pps_number;
    nal_head head; // at frame_num
};

static std::vector<slice_begin> find_slices(std::span<const std::vector<uint8_t>> pictures)
{
    std::vector<slice_begin> slices;
    for (const std::vector<uint8_t> &picture : pictures) {
        std::vector<std::span<const uint8_t>> nals;
        (void)nal_split_by_lengths(picture, 4, nals);
        const auto slice = std::find_if(nals.begin(), nals.end(), [](auto nal) {
            return nal_type(nal) == kNalSlice || nal_type(nal) == kNalIdr;
        });
        if (slice == nals.end()) {
            continue;
        }
        slice_begin begin = {.is_idr = nal_type(*slice) == kNalIdr,
                             .is_reference = ((*slice)[0] & 0x60) != 0, // nal_ref_idc
                             .pps_number = 0,
                             .head = nal_head_open(*slice, 0)};
        const auto first_mb_in_slice = nal_head_ue(begin.head);
        const auto slice_type = nal_head_ue(begin.head);
        const auto pps_number = nal_head_ue(begin.head);
        if (first_mb_in_slice && slice_type && pps_number) {
            begin.pps_number = *pps_number;
            slices.push_back(begin);
        }
    }
    return slices;
}

// frame_num is 0 in an IDR picture, and counts the reference pictures before this one.
static unsigned contradictions_of_frame_num(std::vector<slice_begin> &slices, unsigned bits)
{
    unsigned count = 0, expected = 0;
    for (slice_begin &slice : slices) {
        const unsigned frame_num = nal_head_u(slice.head, bits).value_or(0);
        expected = slice.is_idr ? 0 : expected;
        count += frame_num != expected ? 1 : 0;
        expected = (frame_num + (slice.is_reference ? 1u : 0u)) & ((1u << bits) - 1);
    }
    return count;
}

// The order count is 0 in an IDR picture and rises by the same step from one picture to the next.
static unsigned contradictions_of_order(std::vector<slice_begin> slices, unsigned bits)
{
    static constexpr unsigned kStepMax = 2;
    std::vector<unsigned> counts(kStepMax, 0);
    unsigned last = 0;
    for (slice_begin &slice : slices) {
        if (slice.is_idr) {
            (void)nal_head_ue(slice.head); // idr_pic_id
        }
        const unsigned order = nal_head_u(slice.head, bits).value_or(0);
        for (unsigned step = 1; step <= kStepMax; step++) {
            const unsigned expected = slice.is_idr ? 0 : (last + step) & ((1u << bits) - 1);
            counts[step - 1] += order != expected ? 1 : 0;
        }
        last = order;
    }
    return *std::min_element(counts.begin(), counts.end());
}

std::vector<number_widths> slice_numbers_find(std::span<const std::vector<uint8_t>> pictures,
                                              unsigned &pps_number)
{
    const std::vector<slice_begin> slices = find_slices(pictures);
    std::vector<number_widths> found;
    if (slices.empty()) {
        return found;
    }
    pps_number = slices.front().pps_number;
    for (unsigned bits = kWidthMin; bits <= kWidthMax; bits++) {
        std::vector<slice_begin> rest = slices;
        const unsigned of_frame_num = contradictions_of_frame_num(rest, bits);
        // Without the number, nothing can contradict; it comes after a width without contradiction.
        found.push_back({bits, 0, of_frame_num + 1});
        for (unsigned order_bits = kWidthMin; order_bits <= kWidthMax; order_bits++) {
            found.push_back(
                {bits, order_bits, 2 * of_frame_num + contradictions_of_order(rest, order_bits)});
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const auto &a, const auto &b) {
        return a.contradictions < b.contradictions;
    });
    return found;
}

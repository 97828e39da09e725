#include "client/input/parameter_set_writer.h"

#include "client/input/nal_unit.h"

#include <algorithm>

static constexpr unsigned kMacroblock = 16;                          // pixels
static constexpr unsigned kBaseline = 66, kMain = 77, kHigh = 100;   // profile_idc
static constexpr uint8_t kSpsHeader = 0x67, kPpsHeader = 0x68;       // nal_ref_idc 3
static constexpr uint8_t kConstrained = 0xC0, kUnconstrained = 0x40; // constraint_set0, 1

// pic_init_qs has a meaning only for SP and SI slices, which these profiles do not have: it marks
// the sets as ours. Others leave it at 26, or repeat the quantiser of the pictures.
static constexpr int kMarkQs = 1;

struct bit_writer {
    std::vector<uint8_t> bytes;
    unsigned used_bits = 8; // of the last byte
};

static void put(bit_writer &out, unsigned value, unsigned width) // u(n)
{
    for (; width > 0; width--) {
        if (out.used_bits == 8) {
            out.bytes.push_back(0);
            out.used_bits = 0;
        }
        out.used_bits++;
        out.bytes.back() |=
            static_cast<uint8_t>((value >> (width - 1) & 1u) << (8 - out.used_bits));
    }
}

static void put_flag(bit_writer &out, bool is_set)
{
    put(out, is_set ? 1 : 0, 1);
}

static void put_ue(bit_writer &out, unsigned value) // ue(v)
{
    unsigned zeros = 0;
    while (value + 1 >= 2u << zeros) {
        zeros++;
    }
    put(out, 0, zeros);
    put(out, value + 1, zeros + 1);
}

static void put_se(bit_writer &out, int value) // se(v)
{
    put_ue(out, static_cast<unsigned>(value > 0 ? 2 * value - 1 : -2 * value));
}

// Appends the unit after a start code, with its trailing bits and emulation prevention bytes.
static void append_unit(std::vector<uint8_t> &sets, bit_writer &unit)
{
    put(unit, 1, 1); // rbsp_stop_one_bit
    sets.insert(sets.end(), {0, 0, 0, 1});
    unsigned zeros = 0;
    for (const uint8_t byte : unit.bytes) {
        if (zeros >= 2 && byte <= 3) {
            sets.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        sets.push_back(byte);
    }
}

// The lowest of some levels that holds the picture, and the most reference frames that it allows.
// source: ISO/IEC 14496-10, table A-1
struct level_limits {
    unsigned level_idc, frame_macroblocks, buffer_macroblocks;
};

static level_limits limits_for(unsigned macroblocks)
{
    static constexpr level_limits kLevels[] = {
        {13, 396, 2376}, {30, 1620, 8100}, {31, 3600, 18000}, {40, 8192, 32768}};
    const auto *const found =
        std::find_if(std::begin(kLevels), std::end(kLevels) - 1, [=](const level_limits &level) {
            return macroblocks <= level.frame_macroblocks;
        });
    return *found;
}

static unsigned macroblocks_of(unsigned pixels)
{
    return (pixels + kMacroblock - 1) / kMacroblock;
}

static void append_sequence_set(std::vector<uint8_t> &sets, const set_values &values)
{
    const unsigned columns = macroblocks_of(values.width), rows = macroblocks_of(values.height);
    const unsigned cut_right = columns * kMacroblock - values.width;
    const unsigned cut_bottom = rows * kMacroblock - values.height;
    const level_limits limits = limits_for(columns * rows);
    const unsigned profile_idc = values.has_8x8                                ? kHigh
                                 : values.has_arithmetic || values.has_weights ? kMain
                                                                               : kBaseline;
    bit_writer out;
    // clang-format off
    put(out, kSpsHeader, 8);
    put(out, profile_idc, 8);
    put(out, profile_idc == kBaseline ? kConstrained : profile_idc == kMain ? kUnconstrained : 0, 8);
    put(out, limits.level_idc, 8);
    put_ue(out, 0);                              // seq_parameter_set_id
    if (profile_idc == kHigh) {
        put_ue(out, 1);                          // chroma_format_idc: 4:2:0
        put_ue(out, 0);                          // bit_depth_luma_minus8
        put_ue(out, 0);                          // bit_depth_chroma_minus8
        put(out, 0, 1);                          // qpprime_y_zero_transform_bypass_flag
        put(out, 0, 1);                          // seq_scaling_matrix_present_flag
    }
    put_ue(out, values.frame_num_bits - 4);      // log2_max_frame_num_minus4
    put_ue(out, values.order_bits == 0 ? 2 : 0); // pic_order_cnt_type
    if (values.order_bits != 0) {
        put_ue(out, values.order_bits - 4);      // log2_max_pic_order_cnt_lsb_minus4
    }
    put_ue(out, std::min(16u, limits.buffer_macroblocks / (columns * rows))); // max_num_ref_frames
    put(out, 0, 1);                              // gaps_in_frame_num_value_allowed_flag
    put_ue(out, columns - 1);                    // pic_width_in_mbs_minus1
    put_ue(out, rows - 1);                       // pic_height_in_map_units_minus1
    put(out, 1, 1);                              // frame_mbs_only_flag
    put(out, 1, 1);                              // direct_8x8_inference_flag
    put_flag(out, cut_right + cut_bottom != 0);  // frame_cropping_flag
    if (cut_right + cut_bottom != 0) {
        put_ue(out, 0);                          // frame_crop_left_offset
        put_ue(out, cut_right / 2);              // frame_crop_right_offset
        put_ue(out, 0);                          // frame_crop_top_offset
        put_ue(out, cut_bottom / 2);             // frame_crop_bottom_offset
    }
    put(out, 0, 1);                              // vui_parameters_present_flag
    // clang-format on
    append_unit(sets, out);
}

static void append_picture_set(std::vector<uint8_t> &sets, const set_values &values)
{
    bit_writer out;
    // clang-format off
    put(out, kPpsHeader, 8);
    put_ue(out, values.pps_number);              // pic_parameter_set_id
    put_ue(out, 0);                              // seq_parameter_set_id
    put_flag(out, values.has_arithmetic);        // entropy_coding_mode_flag
    put(out, 0, 1);                              // bottom_field_pic_order_in_frame_present_flag
    put_ue(out, 0);                              // num_slice_groups_minus1
    put_ue(out, values.references - 1);          // num_ref_idx_l0_default_active_minus1
    put_ue(out, 0);                              // num_ref_idx_l1_default_active_minus1
    put_flag(out, values.has_weights);           // weighted_pred_flag
    put(out, 0, 2);                              // weighted_bipred_idc
    put_se(out, values.initial_qp - 26);         // pic_init_qp_minus26
    put_se(out, kMarkQs - 26);                   // pic_init_qs_minus26
    put_se(out, 0);                              // chroma_qp_index_offset
    put_flag(out, values.has_deblocking);        // deblocking_filter_control_present_flag
    put_flag(out, values.has_closed_intra);      // constrained_intra_pred_flag
    put(out, 0, 1);                              // redundant_pic_cnt_present_flag
    if (values.has_8x8) {
        put(out, 1, 1);                          // transform_8x8_mode_flag
        put(out, 0, 1);                          // pic_scaling_matrix_present_flag
        put_se(out, 0);                          // second_chroma_qp_index_offset
    }
    // clang-format on
    append_unit(sets, out);
}

std::vector<uint8_t> parameter_sets_write(const set_values &values)
{
    std::vector<uint8_t> sets;
    append_sequence_set(sets, values);
    append_picture_set(sets, values);
    return sets;
}

bool parameter_set_is_written_here(std::span<const uint8_t> nal)
{
    if (nal.empty() || nal_type(nal) != kNalPps) {
        return false;
    }
    nal_head head = nal_head_open(nal, 0);
    // clang-format off
    (void)nal_head_ue(head);                     // pic_parameter_set_id
    (void)nal_head_ue(head);                     // seq_parameter_set_id
    (void)nal_head_u(head, 1);                   // entropy_coding_mode_flag
    (void)nal_head_u(head, 1);                   // bottom_field_pic_order_in_frame_present_flag
    (void)nal_head_ue(head);                     // num_slice_groups_minus1
    (void)nal_head_ue(head);                     // num_ref_idx_l0_default_active_minus1
    (void)nal_head_ue(head);                     // num_ref_idx_l1_default_active_minus1
    (void)nal_head_u(head, 1);                   // weighted_pred_flag
    (void)nal_head_u(head, 2);                   // weighted_bipred_idc
    (void)nal_head_ue(head);                     // pic_init_qp_minus26
    const auto qs = nal_head_ue(head);           // pic_init_qs_minus26
    // clang-format on
    return qs == 2u * (26 - kMarkQs); // se(v) of a negative number
}

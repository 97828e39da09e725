// Writes H.264 parameter sets from their values.
#ifndef CLIENT_INPUT_PARAMETER_SET_WRITER_H
#define CLIENT_INPUT_PARAMETER_SET_WRITER_H

#include <cstdint>
#include <span>
#include <vector>

// Progressive 4:2:0 pictures of 8 bits. What is not here has the value that is usual.
struct set_values {
    unsigned width = 0, height = 0;
    unsigned frame_num_bits = 4;   // log2_max_frame_num, from 4 to 16
    unsigned order_bits = 0;       // log2_max_pic_order_cnt_lsb, from 4 to 16; 0: type 2
    unsigned pps_number = 0;       // pic_parameter_set_id
    int initial_qp = 26;           // pic_init_qp, from 0 to 51
    unsigned references = 1;       // num_ref_idx_l0_default_active
    bool has_arithmetic = false;   // entropy_coding_mode_flag
    bool has_deblocking = true;    // deblocking_filter_control_present_flag
    bool has_8x8 = false;          // transform_8x8_mode_flag
    bool has_weights = false;      // weighted_pred_flag
    bool has_closed_intra = false; // constrained_intra_pred_flag
};

// returns: a sequence and a picture parameter set, each after a start code
// source: ISO/IEC 14496-10, 7.3.2.1 and 7.3.2.2
std::vector<uint8_t> parameter_sets_write(const set_values &values);

// in: nal: any NAL unit
// returns: whether it is a picture parameter set that was written here: a guess
[[nodiscard]] bool parameter_set_is_written_here(std::span<const uint8_t> nal);

#endif // CLIENT_INPUT_PARAMETER_SET_WRITER_H

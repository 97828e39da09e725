// The widths of the numbers in slice headers, which only the lost parameter sets state.
#ifndef CLIENT_INPUT_SLICE_NUMBERS_H
#define CLIENT_INPUT_SLICE_NUMBERS_H

#include <cstdint>
#include <span>
#include <vector>

// A pair of widths, and how many numbers of the pictures contradict it.
struct number_widths {
    unsigned frame_num_bits; // log2_max_frame_num
    unsigned order_bits;     // log2_max_pic_order_cnt_lsb; 0: pic_order_cnt_type 2
    unsigned contradictions;
};

// in: pictures: each its NAL units after their lengths of 4 bytes
// out: pps_number: of the first picture
// returns: all pairs, the most plausible first; empty when the first picture has no slice header
// source: ISO/IEC 14496-10, 7.3.3
std::vector<number_widths> slice_numbers_find(std::span<const std::vector<uint8_t>> pictures,
                                              unsigned &pps_number);

#endif // CLIENT_INPUT_SLICE_NUMBERS_H

// An AAC Low Complexity parser for long windows. It reads every bit of an access unit, down to the
// quantised values.
#ifndef TESTS_SUPPORT_AAC_PARSER_H
#define TESTS_SUPPORT_AAC_PARSER_H

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct AacChannel {
    int global_gain = 0;
    std::vector<int> codebooks;    // of each band
    std::vector<int> scalefactors; // of each band; noise energy in a noise band, 0 in a zero band
    bool tns_present = false;
    std::array<int, 1024> quantised = {};
    std::array<double, 1024> lines = {}; // before TNS synthesis and mid/side, without noise
};

struct AacFrame {
    int bits = 0;          // up to the END element, its 3 bits included
    bool mid_side = false; // in every band
    std::vector<AacChannel> channels;
};

// Parses one raw_data_block(), which must fill `bytes`.
// returns: the first fault; empty when there is none
std::string parse_raw_data_block(std::span<const uint8_t> bytes, int sampling_index,
                                 AacFrame *frame);

#endif // TESTS_SUPPORT_AAC_PARSER_H

// The AAC syntax elements. Each writer can also count: with `write` zero it writes nothing and only
// returns how many bits it would have written.
#ifndef AACENC_ELEMENT_SYNTAX_H
#define AACENC_ELEMENT_SYNTAX_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// id_syn_ele
enum : uint32_t {
    ID_SCE = 0,
    ID_CPE = 1,
    ID_FIL = 6,
    ID_END = 7,
};

// One channel as a single_channel_element() with its codeword list.
// returns: bits
// source:  ISO/IEC 14496-3, Table 4.4
int32_t WriteSCE(const AacEncCoderInfo *coder_info, uint32_t tag, AacEncBitstream *bitstream,
                 int32_t write, const EncTfState *tf_state);

// Two channels as a channel_pair_element().
// returns: bits
// source:  ISO/IEC 14496-3, Table 4.5
int32_t WriteCPE(const AacEncCoderInfo *coder_info_first, const AacEncCoderInfo *coder_info_second,
                 uint32_t tag, int32_t common_window, const AacEncMsInfo *ms_info,
                 AacEncBitstream *bitstream, int32_t write, const EncTfState *tf_state);

// What a channel pair with a common window sends in front of its channels: ics_info() and the
// mid/side mask.
// returns: bits
int32_t write_common_window(const AacEncCoderInfo *coder_info, const AacEncMsInfo *ms_info,
                            AacEncBitstream *bitstream, int32_t write, const EncTfState *tf_state);

// individual_channel_stream() up to its spectral_data().
// returns: bits
// source:  ISO/IEC 14496-3, Table 4.50
int32_t write_channel_side(const AacEncCoderInfo *coder_info, int32_t common_window,
                           AacEncBitstream *bitstream, int32_t write, const EncTfState *tf_state);

// section_data(): a section is the longest run of bands with the same codebook.
// returns: bits
// source:  ISO/IEC 14496-3, Table 4.52
int32_t sort_book_numbers(const AacEncCoderInfo *coder_info, AacEncBitstream *bitstream,
                          int32_t write, const EncTfState *tf_state);

// scale_factor_data(). A step without a codeword is not written; a stream never holds one.
// returns: bits
// source:  ISO/IEC 14496-3, Table 4.53
int32_t write_scalefactor_bitstream(AacEncBitstream *bitstream, int32_t write,
                                    const AacEncCoderInfo *coder_info, const EncTfState *tf_state);

// tns_data_present and tns_data() from the channel's TNS record.
// returns: bits
// source:  ISO/IEC 14496-3, Tables 4.50 and 4.54
int32_t WriteTNSData(const AacEncCoderInfo *coder_info, AacEncBitstream *bitstream, int32_t write);

// Fill elements of `bits` bits.
// returns: bits left over, too few for an element: 0..6
// source:  ISO/IEC 14496-3, Table 4.11
int32_t WriteAACFillBits(AacEncBitstream *bitstream, int32_t bits);

#endif // AACENC_ELEMENT_SYNTAX_H

// The AAC syntax elements. With `write` zero a writer only counts: it writes nothing and returns
// the number of bits.
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
// source: ISO/IEC 14496-3, Table 4.4
int32_t WriteSCE(const AacEncCoderInfo *coder, uint32_t tag, AacEncBitstream *bs, int32_t write,
                 const EncTfState *tf);

// Two channels as a channel_pair_element().
// returns: bits
// source: ISO/IEC 14496-3, Table 4.5
int32_t WriteCPE(const AacEncCoderInfo *first_coder, const AacEncCoderInfo *second_coder,
                 uint32_t tag, int32_t common_window, const AacEncMsInfo *ms_info,
                 AacEncBitstream *bs, int32_t write, const EncTfState *tf);

// The start of a channel pair with a common window: ics_info() and the mid/side mask.
// returns: bits
int32_t write_common_window(const AacEncCoderInfo *coder, const AacEncMsInfo *ms_info,
                            AacEncBitstream *bs, int32_t write, const EncTfState *tf);

// individual_channel_stream() up to its spectral_data().
// returns: bits
// source: ISO/IEC 14496-3, Table 4.50
int32_t write_channel_side(const AacEncCoderInfo *coder, int32_t common_window, AacEncBitstream *bs,
                           int32_t write, const EncTfState *tf);

// section_data(): a section is the longest run of bands with the same codebook.
// returns: bits
// source: ISO/IEC 14496-3, Table 4.52
int32_t sort_book_numbers(const AacEncCoderInfo *coder, AacEncBitstream *bs, int32_t write,
                          const EncTfState *tf);

// scale_factor_data(). A difference without a codeword is not written; no stream contains one. Nor
// does the encoder produce intensity bands.
// returns: bits
// source: ISO/IEC 14496-3, Table 4.53
int32_t write_scalefactor_bitstream(AacEncBitstream *bs, int32_t write,
                                    const AacEncCoderInfo *coder, const EncTfState *tf);

// returns: bits of a difference between the scalefactors of spectral bands
[[nodiscard]] int32_t difference_bits(int32_t difference);

// tns_data_present and tns_data() from the channel's TNS record.
// returns: bits
// source: ISO/IEC 14496-3, Tables 4.50 and 4.54
int32_t WriteTNSData(const AacEncCoderInfo *coder, AacEncBitstream *bs, int32_t write);

// Fill elements of `bits` bits. The frame driver writes none.
// returns: bits left over, too few for an element: 0..6
// source: ISO/IEC 14496-3, Table 4.11
int32_t WriteAACFillBits(AacEncBitstream *bs, int32_t bits);

#endif // AACENC_ELEMENT_SYNTAX_H

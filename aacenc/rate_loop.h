// The rate loop: one global gain per channel and frame, found by a short search against the bits of
// the frame.
#ifndef AACENC_RATE_LOOP_H
#define AACENC_RATE_LOOP_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Quantises a channel's spectrum and replaces it with the codeword list.
// in:      spectrum  the channel's 1024 lines, in a channel buffer
//          bit_budget    bits for the channel; may be negative
//          bitstream    where the channel will be written; used to count only
//          tf_state      `bitsLeft`: what this channel and those after it may take
// out:     tf_state      `bitsLeft` without what this one takes, `lastGain`, the work arrays
//          spectrum  the codeword list
//          coder_info    gain, scalefactors, codebooks, length of the codeword list
// returns: 0
[[nodiscard]] int32_t tf_encode_spectrum_aac(int32_t *const *spectrum, uint8_t window_sequence,
                                             int32_t bit_budget, AacEncBitstream *bitstream,
                                             AacEncCoderInfo *coder_info,
                                             const AacEncChInfo *ch_info, EncTfState *tf_state);

#endif // AACENC_RATE_LOOP_H

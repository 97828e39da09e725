// The rate loop: a short search for one global gain per channel and frame that meets the bit
// budget.
#ifndef AACENC_RATE_LOOP_H
#define AACENC_RATE_LOOP_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Quantises a channel's spectrum and replaces it with the codeword list.
// in: spectrum: the channel's 1024 lines in a channel buffer
// in: bit_budget: of the channel; may be negative
// in: bitstream: used to count only
// in: tf: `bitsLeft` for this channel and the ones after it
// out: spectrum: the codeword list
// out: tf: `bitsLeft` without this channel, `lastGain` and the work arrays
// out: coder: gain, scalefactors, codebooks and the codeword list
// returns: 0
[[nodiscard]] int32_t tf_encode_spectrum_aac(int32_t *const *spectrum, uint8_t window_sequence,
                                             int32_t bit_budget, AacEncBitstream *bitstream,
                                             AacEncCoderInfo *coder, const AacEncChInfo *ch_info,
                                             EncTfState *tf);

#endif // AACENC_RATE_LOOP_H

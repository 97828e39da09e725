// The rate loop: one global gain per channel and frame, found by a short search against the bits of
// the frame.
#ifndef AACENC_RATE_LOOP_H
#define AACENC_RATE_LOOP_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Quantises a channel's spectrum and replaces it with the codeword list.
// in:      spectrumPtr  the channel's 1024 lines, in a channel buffer
//          bitBudget    bits for the channel; may be negative
//          bitstream    where the channel will be written; used to count only
//          tfState      `bitsLeft`: what this channel and those after it may take
// out:     tfState      `bitsLeft` without what this one takes, `lastGain`, the work arrays
//          spectrumPtr  the codeword list
//          coderInfo    gain, scalefactors, codebooks, length of the codeword list
// returns: 0
[[nodiscard]] int32_t tf_encode_spectrum_aac(int32_t *const *spectrumPtr, uint8_t windowSequence,
                                             int32_t bitBudget, AacEncBitstream *bitstream,
                                             AacEncCoderInfo *coderInfo, const AacEncChInfo *chInfo,
                                             EncTfState *tfState);

#endif // AACENC_RATE_LOOP_H

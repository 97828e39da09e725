// Channels and their elements, and the two tools that work across bands and channels: perceptual
// noise substitution and mid/side stereo.
#ifndef AACENC_CHANNEL_ELEMENTS_H
#define AACENC_CHANNEL_ELEMENTS_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Maps one channel onto a single channel element, two onto a channel pair element without common
// window; both with tag 0.
void DetermineChInfo(AacEncChInfo *ch_info0, AacEncChInfo *ch_info1, int32_t channels);

// Flags the bands above the audio bandwidth as noise bands with the energies that stand for them,
// up to the highest band with energy, and clears the lines from there on.
// in, out: spectrum    1024 lines
// in:      band_widths  the bands' widths in lines
// out:     coder_info   noise flags and energies
// source:  ISO/IEC 14496-3, 4.6.13
void AACENC_CalcPNS(int32_t *spectrum, AacEncCoderInfo *coder_info, const uint8_t *band_widths,
                    const EncTfState *tf_state);

// Turns the left and right lines of a channel pair into mid and side, and the pair into one with a
// common window and mid/side in every band.
void MSEncode(int32_t *const *spectra, AacEncChInfo *ch_info0, AacEncChInfo *ch_info1,
              const AacEncCoderInfo *coder_info0, int32_t channels, const EncTfState *tf_state);

#endif // AACENC_CHANNEL_ELEMENTS_H

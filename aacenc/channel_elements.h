// The channels' syntax elements, perceptual noise substitution and mid/side stereo.
#ifndef AACENC_CHANNEL_ELEMENTS_H
#define AACENC_CHANNEL_ELEMENTS_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Maps one channel onto a single channel element, and two onto a channel pair element without a
// common window. The tag is 0.
void DetermineChInfo(AacEncChInfo *ch_info0, AacEncChInfo *ch_info1, int32_t channels);

// Turns the bands from the audio bandwidth up to the highest loud band into noise bands, and clears
// the lines from that band on.
// in: spectrum: 1024 lines
// in: band_widths: lines of each band
// out: spectrum: without the cleared lines
// out: coder: noise flags and energies
// source: ISO/IEC 14496-3, 4.6.13
void AACENC_CalcPNS(int32_t *spectrum, AacEncCoderInfo *coder, const uint8_t *band_widths,
                    const EncTfState *tf);

// Turns the left and right lines of a channel pair into mid and side, and gives the pair a common
// window with mid/side in every band. Never called in operation: AacEncState::midSide is off.
// source: ISO/IEC 14496-3, 4.6.8.1
void MSEncode(int32_t *const *spectra, AacEncChInfo *ch_info0, AacEncChInfo *ch_info1,
              const AacEncCoderInfo *coder0, int32_t channels, const EncTfState *tf);

#endif // AACENC_CHANNEL_ELEMENTS_H

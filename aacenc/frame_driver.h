// The frame driver: one frame of PCM to one access unit.
#ifndef AACENC_FRAME_DRIVER_H
#define AACENC_FRAME_DRIVER_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Encodes a frame and keeps the account of its bits.
// in:      pcm_left, pcm_right  1024 samples each; null stands for the pointer of the frame before
//          out_buffer          AACENC_OUTPUT_BYTES
// out:     out_length          bytes of the access unit, ADTS header included; only on success
// returns: 0, or negative when the frame fails
[[nodiscard]] int32_t AACEnc_EncodeFrame(AacEncState *state, const int16_t *pcm_left,
                                         const int16_t *pcm_right, uint8_t *out_buffer,
                                         int32_t *out_length);

// Writes the 7-byte ADTS header of a frame.
// in:      frame_length  bytes, header included
// returns: 56, the bits of the header
// source:  ISO/IEC 13818-7, adts_fixed_header() and adts_variable_header()
int32_t AACEnc_WriteADTSHeader(const AacEncState *state, int32_t frame_length, uint8_t *out_buffer);

// Encodes the frame that the state's PCM pointers name into a bitstream that the caller has set up,
// without the bookkeeping around a frame: the bit reservoir, the TNS hold-off and the framing.
// returns: 0, -1 when a pointer is missing, or another negative value when the frame fails
// source:  ISO/IEC 14496-3, raw_data_block()
extern "C" AACENC_API int32_t EncTfFrame(AacEncState *state, AacEncBitstream *bitstream,
                                         EncTfState *tf_state);

#endif // AACENC_FRAME_DRIVER_H

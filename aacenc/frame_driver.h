// The frame driver: one frame of PCM to one access unit.
#ifndef AACENC_FRAME_DRIVER_H
#define AACENC_FRAME_DRIVER_H

#include "aacenc/encoder_state.h"

#include <cstdint>

// Encodes a frame and updates the bit reservoir.
// in: pcm_left, pcm_right: 1024 samples each; null means the previous frame's pointer
// in: out_buffer: AACENC_OUTPUT_BYTES
// out: out_bytes: of the access unit, ADTS header included; written only on success
// returns: 0, or a negative value when the frame fails
[[nodiscard]] int32_t AACEnc_EncodeFrame(AacEncState *state, const int16_t *pcm_left,
                                         const int16_t *pcm_right, uint8_t *out_buffer,
                                         int32_t *out_bytes);

// Writes the 7-byte ADTS header of a frame.
// in: frame_bytes: header included
// returns: 56, the bits of the header
// source: ISO/IEC 13818-7, adts_fixed_header() and adts_variable_header()
int32_t AACEnc_WriteADTSHeader(const AacEncState *state, int32_t frame_bytes, uint8_t *out_buffer);

// Encodes the frame at the state's PCM pointers into a bitstream that the caller has set up. The
// bit reservoir, the TNS hold-off and the framing are left to the caller.
// returns: 0, -1 when a pointer is null, or another negative value when the frame fails
// source: ISO/IEC 14496-3, raw_data_block()
extern "C" AACENC_API int32_t EncTfFrame(AacEncState *state, AacEncBitstream *bitstream,
                                         EncTfState *tf);

#endif // AACENC_FRAME_DRIVER_H

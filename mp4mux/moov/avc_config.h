// The AVC decoder configuration record.
#ifndef MP4MUX_MOOV_AVC_CONFIG_H
#define MP4MUX_MOOV_AVC_CONFIG_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Writes the payload of an avcC box from a complete record, as it is, or from Annex B, of which the
// last SPS and PPS go into the record. Writes nothing for fewer than 7 bytes and for Annex B
// without an SPS. Units count as their bytes and 4 bytes of length; a unit with which they would
// exceed 1024 bytes is left out.
// returns: 0; write failures are in the error record
// source: ISO/IEC 14496-15, 5.2.4.1; ITU-T H.264, Annex B
int32_t isom_write_avcc(mp4_mux_t *mux, const uint8_t *data, int32_t data_bytes);

#endif // MP4MUX_MOOV_AVC_CONFIG_H

// The AVC decoder configuration record of one SPS and one PPS.
#ifndef MP4MUX_AVC_RECORD_H
#define MP4MUX_AVC_RECORD_H

#include "mp4mux/avc_syntax.h"
#include "mp4mux/bitstream.h"

#include <cstddef>

struct parameter_sets {
    nal_unit sps;
    nal_unit pps;
};

// returns: the bytes of the record
[[nodiscard]] size_t avc_record_bytes(const parameter_sets &sets);

// Writes the record; failures are in the error record.
// in: sets: sps of at least kMinSpsBytes bytes; pps may be empty; each is at most UINT16_MAX bytes
// source: ISO/IEC 14496-15, 5.2.4.1
void write_avc_record(mp4_mux_bs_t *bs, const parameter_sets &sets);

#endif // MP4MUX_AVC_RECORD_H

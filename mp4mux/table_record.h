// The records of the scratch tables.
#ifndef MP4MUX_TABLE_RECORD_H
#define MP4MUX_TABLE_RECORD_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Append one big-endian number to a scratch table, whole or not at all: what the close copies is
// never torn by a write that fails once and goes through on the next try.
// returns  whether it was stored; a failure is in the error record, also one that the second try
//          made good
bool append_be32(mp4_mux_bs_t *bs, uint32_t value);
bool append_be64(mp4_mux_bs_t *bs, uint64_t value);

// Appends the track's open run of equal durations: its sample count, then its ticks per sample.
// returns  as above
bool append_run(mp4_mux_track_t *p_track);

// Appends a run of one sample that lasts no time.
// returns  as above
bool append_filler_run(mp4_mux_track_t *p_track);

#endif // MP4MUX_TABLE_RECORD_H

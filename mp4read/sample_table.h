// The sample table of a track: position, time and kind of every sample.
#ifndef MP4READ_SAMPLE_TABLE_H
#define MP4READ_SAMPLE_TABLE_H

#include "mp4read/box_reader.h"

namespace mp4_reader {

// Checks the tables of a stbl box and passes the samples to the sink, in decoding order.
// in: the track, which the sink receives too
// out: its samples_left_out
void read_samples(reading &state, const box &stbl, const sample_sink &sink, track &result);

} // namespace mp4_reader

#endif // MP4READ_SAMPLE_TABLE_H

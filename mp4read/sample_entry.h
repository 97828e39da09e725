// The sample description of a track, with the decoder configurations of AVC and AAC.
#ifndef MP4READ_SAMPLE_ENTRY_H
#define MP4READ_SAMPLE_ENTRY_H

#include "mp4read/box_reader.h"

namespace mp4_reader {

// Reads the only entry of a stsd box.
// in: the track, whose handler says what the entry describes
// out: its coding, picture size, audio format and decoder configuration
void read_sample_entry(reading &state, const box &stsd, track &result);

} // namespace mp4_reader

#endif // MP4READ_SAMPLE_ENTRY_H

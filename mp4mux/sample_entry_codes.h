// Which sample entry and which MPEG-4 object type a stream gets, and how large its codec-specific
// boxes will be.
#ifndef MP4MUX_SAMPLE_ENTRY_CODES_H
#define MP4MUX_SAMPLE_ENTRY_CODES_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Audio format tags with a meaning here.
enum {
    kAudioTagPcm = 0x0001,
    kAudioTagMp3 = 0x0055,
    kAudioTagAmrWbp = 0x0056,
    kAudioTagAmrNb = 0x0057,
    kAudioTagAmrWb = 0x0058,
    kAudioTagAacRaw = 0x00FF,
    kAudioTagAc3 = 0x2000,
    kAudioTagDts = 0x2001,
    kAudioTagMp4a = 0x706D,
    kAudioTagAac = 0xAAC0,
    kAudioTagQcelp = 0xCC00,
    kAudioTagEvrc = 0xCD00,
    kAudioTagEvrcB = 0xCD01,
    kAudioTagEvrcWb = 0xCD02,
    kAudioTagVmr = 0xCD10,
    kAudioTagSmv = 0xCD20,
};

// Sets an audio track's sample-entry type and object type from its format tag and private data.
// returns  estimate in bytes of its codec-specific boxes
int64_t assign_audio_codes(mp4_mux_track_t *p_track);

// Sets the object type of an "mp4v" video track.
// returns  estimate in bytes of its codec-specific boxes
int64_t assign_video_codes(mp4_mux_track_t *p_track);

#endif // MP4MUX_SAMPLE_ENTRY_CODES_H

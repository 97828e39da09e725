// The sample entry and the MPEG-4 object type of a stream, and the estimate of the entry's size.
#ifndef MP4MUX_SAMPLE_ENTRY_CODES_H
#define MP4MUX_SAMPLE_ENTRY_CODES_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// The audio format tags that the muxer knows.
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
    kAudioTagAac = MUX_AUDIO_AAC,
    kAudioTagQcelp = 0xCC00,
    kAudioTagEvrc = 0xCD00,
    kAudioTagEvrcB = 0xCD01,
    kAudioTagEvrcWb = 0xCD02,
    kAudioTagVmr = 0xCD10,
    kAudioTagSmv = 0xCD20,
};

// Bytes of the codec-specific boxes that have a fixed size.
inline constexpr uint32_t kD263BoxBytes = 15;
inline constexpr uint32_t kDamrBoxBytes = 17;
inline constexpr uint32_t kDqcpBoxBytes = 14;

// Sets an audio track's sample-entry type and object type from its format tag and private data.
// returns: estimate in bytes of its sample entry with the codec-specific box
int64_t assign_audio_codes(mp4_mux_track_t *p_track);

// Sets the object type of an "mp4v" video track.
// returns: estimate in bytes of its sample entry with the codec-specific box
int64_t assign_video_codes(mp4_mux_track_t *p_track);

#endif // MP4MUX_SAMPLE_ENTRY_CODES_H

// Which sample entry and which MPEG-4 object type a stream gets, and how large its codec-specific
// boxes will be.
#ifndef MP4MUX_SAMPLE_ENTRY_CODES_H
#define MP4MUX_SAMPLE_ENTRY_CODES_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Audio format tags with a meaning here.
enum {
    AUDIO_TAG_PCM = 0x0001,
    AUDIO_TAG_MP3 = 0x0055,
    AUDIO_TAG_AMR_WBP = 0x0056,
    AUDIO_TAG_AMR_NB = 0x0057,
    AUDIO_TAG_AMR_WB = 0x0058,
    AUDIO_TAG_AAC_RAW = 0x00FF,
    AUDIO_TAG_AC3 = 0x2000,
    AUDIO_TAG_DTS = 0x2001,
    AUDIO_TAG_MP4A = 0x706D,
    AUDIO_TAG_AAC = 0xAAC0,
    AUDIO_TAG_QCELP = 0xCC00,
    AUDIO_TAG_EVRC = 0xCD00,
    AUDIO_TAG_EVRC_B = 0xCD01,
    AUDIO_TAG_EVRC_WB = 0xCD02,
    AUDIO_TAG_VMR = 0xCD10,
    AUDIO_TAG_SMV = 0xCD20,
};

// Sets an audio track's sample-entry type and object type from its format tag and private data.
// returns  estimate in bytes of its codec-specific boxes
int64_t assign_audio_codes(mp4_mux_track_t *p_track);

// Sets the object type of an "mp4v" video track.
// returns  estimate in bytes of its codec-specific boxes
int64_t assign_video_codes(mp4_mux_track_t *p_track);

#endif // MP4MUX_SAMPLE_ENTRY_CODES_H

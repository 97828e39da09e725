#include "mp4mux/sample_entry_codes.h"

#include "mp4mux/box_writer.h"
#include "mp4mux/descriptor.h"
#include "mp4mux/mux_util.h"

#include <cstddef>

// ISO/IEC 14496-1, table 5: objectTypeIndication; the speech codecs' are registered user types.
enum {
    OTI_NONE = 0,
    OTI_MPEG4_VISUAL = 0x20,
    OTI_MPEG4_AUDIO = 0x40,
    OTI_MP3 = 0x6B,
    OTI_EVRC = 0xA0,
    OTI_SMV = 0xA1,
    OTI_AC3 = 0xD3,
    OTI_DTS = 0xD4,
    OTI_QCELP = 0xE1,
};

namespace {

// How the estimate of a sample entry is formed.
enum estimate_rule {
    ESTIMATE_DESCRIPTORS, // "mp4a": the elementary stream descriptors and 67 bytes
    ESTIMATE_PRIVATE,     // the private data in a box of its own
    ESTIMATE_SPEECH_50,
    ESTIMATE_SPEECH_53,
};

// Private data that begins with one of these four-character marks turns a speech codec's entry
// into "mp4a".
enum private_mark {
    MARK_NONE,
    MARK_QLCM,
    MARK_EVRC_OR_QLCM,
};

struct audio_code {
    int32_t tag;
    uint32_t entry;
    uint32_t object_type; // of the entry "mp4a"
    estimate_rule estimate;
    private_mark mark;
};

} // namespace

// clang-format off
static constexpr audio_code kAudioCodes[] = {
    {AUDIO_TAG_PCM,     fourcc("NONE"), OTI_NONE,        ESTIMATE_PRIVATE,     MARK_NONE},
    {AUDIO_TAG_MP3,     fourcc("mp4a"), OTI_MP3,         ESTIMATE_DESCRIPTORS, MARK_NONE},
    {AUDIO_TAG_AMR_WBP, fourcc("sawp"), OTI_NONE,        ESTIMATE_SPEECH_53,   MARK_NONE},
    {AUDIO_TAG_AMR_NB,  fourcc("samr"), OTI_NONE,        ESTIMATE_SPEECH_53,   MARK_NONE},
    {AUDIO_TAG_AMR_WB,  fourcc("sawb"), OTI_NONE,        ESTIMATE_SPEECH_53,   MARK_NONE},
    {AUDIO_TAG_AAC_RAW, fourcc("mp4a"), OTI_MPEG4_AUDIO, ESTIMATE_DESCRIPTORS, MARK_NONE},
    {AUDIO_TAG_AC3,     fourcc("mp4a"), OTI_AC3,         ESTIMATE_DESCRIPTORS, MARK_NONE},
    {AUDIO_TAG_DTS,     fourcc("mp4a"), OTI_DTS,         ESTIMATE_DESCRIPTORS, MARK_NONE},
    {AUDIO_TAG_MP4A,    fourcc("mp4a"), OTI_MPEG4_AUDIO, ESTIMATE_DESCRIPTORS, MARK_NONE},
    {AUDIO_TAG_AAC,     fourcc("mp4a"), OTI_MPEG4_AUDIO, ESTIMATE_DESCRIPTORS, MARK_NONE},
    {AUDIO_TAG_QCELP,   fourcc("sqcp"), OTI_QCELP,       ESTIMATE_SPEECH_50,   MARK_QLCM},
    {AUDIO_TAG_EVRC,    fourcc("sevc"), OTI_EVRC,        ESTIMATE_PRIVATE,     MARK_EVRC_OR_QLCM},
    {AUDIO_TAG_EVRC_B,  fourcc("secb"), OTI_EVRC,        ESTIMATE_PRIVATE,     MARK_EVRC_OR_QLCM},
    {AUDIO_TAG_EVRC_WB, fourcc("secw"), OTI_EVRC,        ESTIMATE_PRIVATE,     MARK_EVRC_OR_QLCM},
    {AUDIO_TAG_VMR,     fourcc("svmr"), OTI_NONE,        ESTIMATE_PRIVATE,     MARK_NONE},
    {AUDIO_TAG_SMV,     fourcc("ssmv"), OTI_SMV,         ESTIMATE_SPEECH_50,   MARK_QLCM},
};
static constexpr audio_code kOtherAudioCode =
    {0,                 fourcc("mp4a"), OTI_MPEG4_AUDIO, ESTIMATE_DESCRIPTORS, MARK_NONE};
// clang-format on

static const audio_code &find_audio_code(int32_t tag)
{
    for (const audio_code &code : kAudioCodes) {
        if (code.tag == tag) {
            return code;
        }
    }
    return kOtherAudioCode;
}

static bool begins_with(const mp4_mux_track_t *p_track, const char *mark)
{
    const char *bytes = reinterpret_cast<const char *>(p_track->m_pbyCodecPrivate);
    return p_track->m_iCodecPrivateSize >= 5 && mp4_mux_strncmp(bytes, mark, 4) == 0;
}

static bool has_mark(const mp4_mux_track_t *p_track, private_mark mark)
{
    return (mark != MARK_NONE && begins_with(p_track, "QLCM")) ||
           (mark == MARK_EVRC_OR_QLCM && begins_with(p_track, "EVRC"));
}

static int64_t estimate_audio(const mp4_mux_track_t *p_track, estimate_rule rule)
{
    const int64_t private_bytes = p_track->m_iCodecPrivateSize;
    switch (rule) {
    case ESTIMATE_PRIVATE:
        return private_bytes != 0 ? private_bytes + 44 : 36;
    case ESTIMATE_SPEECH_50:
        return 50;
    case ESTIMATE_SPEECH_53:
        return 53;
    case ESTIMATE_DESCRIPTORS:
        break;
    }
    return estimate_descriptors(p_track->m_iCodecPrivateSize) + 67;
}

int64_t assign_audio_codes(mp4_mux_track_t *p_track)
{
    const audio_code &code = find_audio_code(p_track->m_iCodec);
    const bool marked = has_mark(p_track, code.mark);
    p_track->m_uiFourCC = marked ? fourcc("mp4a") : code.entry;
    if (p_track->m_uiFourCC == fourcc("mp4a")) {
        p_track->m_uiObjectTypeIndication = code.object_type;
    }
    return estimate_audio(p_track, marked ? ESTIMATE_DESCRIPTORS : code.estimate);
}

int64_t assign_video_codes(mp4_mux_track_t *p_track)
{
    const int64_t private_bytes = p_track->m_iCodecPrivateSize;
    switch (p_track->m_uiFourCC) {
    case fourcc("s263"):
    case fourcc("h263"):
        return 101;
    case fourcc("avc1"):
        return private_bytes + 8 + 86;
    case fourcc("mp4v"):
        p_track->m_uiObjectTypeIndication = OTI_MPEG4_VISUAL;
        return estimate_descriptors(p_track->m_iCodecPrivateSize) + 117;
    default:
        return private_bytes != 0 ? private_bytes + 8 + 86 : 86;
    }
}

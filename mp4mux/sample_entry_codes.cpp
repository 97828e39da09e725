#include "mp4mux/sample_entry_codes.h"

#include "mp4mux/box_writer.h"
#include "mp4mux/c_strings.h"
#include "mp4mux/descriptor.h"

#include <cstddef>

// ISO/IEC 14496-1, table 5: objectTypeIndication; the speech codecs' are registered user types.
enum {
    kOtiNone = 0,
    kOtiMpeg4Visual = 0x20,
    kOtiMpeg4Audio = 0x40,
    kOtiMp3 = 0x6B,
    kOtiEvrc = 0xA0,
    kOtiSmv = 0xA1,
    kOtiAc3 = 0xD3,
    kOtiDts = 0xD4,
    kOtiQcelp = 0xE1,
};

namespace {

// How the estimate of a sample entry is formed.
enum estimate_rule {
    kEstimateDescriptors, // "mp4a": the elementary stream descriptors and 67 bytes
    kEstimatePrivate,     // the private data in a box of its own
    kEstimateSpeech50,
    kEstimateSpeech53,
};

// Private data that begins with one of these four-character marks turns a speech codec's entry
// into "mp4a".
enum private_mark {
    kMarkNone,
    kMarkQlcm,
    kMarkEvrcOrQlcm,
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
    {kAudioTagPcm,     fourcc("NONE"), kOtiNone,        kEstimatePrivate,     kMarkNone},
    {kAudioTagMp3,     fourcc("mp4a"), kOtiMp3,         kEstimateDescriptors, kMarkNone},
    {kAudioTagAmrWbp, fourcc("sawp"), kOtiNone,        kEstimateSpeech53,   kMarkNone},
    {kAudioTagAmrNb,  fourcc("samr"), kOtiNone,        kEstimateSpeech53,   kMarkNone},
    {kAudioTagAmrWb,  fourcc("sawb"), kOtiNone,        kEstimateSpeech53,   kMarkNone},
    {kAudioTagAacRaw, fourcc("mp4a"), kOtiMpeg4Audio, kEstimateDescriptors, kMarkNone},
    {kAudioTagAc3,     fourcc("mp4a"), kOtiAc3,         kEstimateDescriptors, kMarkNone},
    {kAudioTagDts,     fourcc("mp4a"), kOtiDts,         kEstimateDescriptors, kMarkNone},
    {kAudioTagMp4a,    fourcc("mp4a"), kOtiMpeg4Audio, kEstimateDescriptors, kMarkNone},
    {kAudioTagAac,     fourcc("mp4a"), kOtiMpeg4Audio, kEstimateDescriptors, kMarkNone},
    {kAudioTagQcelp,   fourcc("sqcp"), kOtiQcelp,       kEstimateSpeech50,   kMarkQlcm},
    {kAudioTagEvrc,    fourcc("sevc"), kOtiEvrc,        kEstimatePrivate,     kMarkEvrcOrQlcm},
    {kAudioTagEvrcB,  fourcc("secb"), kOtiEvrc,        kEstimatePrivate,     kMarkEvrcOrQlcm},
    {kAudioTagEvrcWb, fourcc("secw"), kOtiEvrc,        kEstimatePrivate,     kMarkEvrcOrQlcm},
    {kAudioTagVmr,     fourcc("svmr"), kOtiNone,        kEstimatePrivate,     kMarkNone},
    {kAudioTagSmv,     fourcc("ssmv"), kOtiSmv,         kEstimateSpeech50,   kMarkQlcm},
};
static constexpr audio_code kOtherAudioCode =
    {0,                 fourcc("mp4a"), kOtiMpeg4Audio, kEstimateDescriptors, kMarkNone};
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
    return (mark != kMarkNone && begins_with(p_track, "QLCM")) ||
           (mark == kMarkEvrcOrQlcm && begins_with(p_track, "EVRC"));
}

static int64_t estimate_audio(const mp4_mux_track_t *p_track, estimate_rule rule)
{
    const int64_t private_bytes = p_track->m_iCodecPrivateSize;
    switch (rule) {
    case kEstimatePrivate:
        return private_bytes != 0 ? private_bytes + 44 : 36;
    case kEstimateSpeech50:
        return 50;
    case kEstimateSpeech53:
        return 53;
    case kEstimateDescriptors:
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
    return estimate_audio(p_track, marked ? kEstimateDescriptors : code.estimate);
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
        p_track->m_uiObjectTypeIndication = kOtiMpeg4Visual;
        return estimate_descriptors(p_track->m_iCodecPrivateSize) + 117;
    default:
        return private_bytes != 0 ? private_bytes + 8 + 86 : 86;
    }
}

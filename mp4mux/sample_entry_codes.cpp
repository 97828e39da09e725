#include "mp4mux/sample_entry_codes.h"

#include "mp4mux/box_writer.h"
#include "mp4mux/c_strings.h"
#include "mp4mux/descriptor.h"

#include <cstddef>

// objectTypeIndication; those of the speech codecs are registered user types.
// source: ISO/IEC 14496-1, Table 5
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

// Fixed bytes of the boxes that an estimate counts.
static constexpr int64_t kVideoEntryBytes = 86;
static constexpr int64_t kAudioEntryBytes = 36;
static constexpr int64_t kEsdsFieldBytes =
    int64_t{kFullBoxHeaderBytes} + kEsFieldBytes + kConfigFieldBytes + kSlDescriptorBytes;

// Private data with a mark is longer than the mark's four characters.
static constexpr int32_t kMarkBytes = 4;
static constexpr int32_t kMinMarkedBytes = 5;

namespace {

// The box that the estimate of a sample entry allows for.
enum estimated_box {
    kBoxEsds,
    kBoxGlbl, // none without private data
    kBoxDqcp,
    kBoxDamr,
};

// Private data that begins with one of these marks turns a speech codec's entry into "mp4a".
enum private_mark {
    kMarkNone,
    kMarkQlcm,
    kMarkEvrcOrQlcm,
};

struct audio_code {
    int32_t tag;
    uint32_t entry;
    uint32_t object_type; // of the entry "mp4a"
    estimated_box box;
    private_mark mark;
};

} // namespace

// clang-format off
static constexpr audio_code kAudioCodes[] = {
    {kAudioTagPcm,    fourcc("NONE"), kOtiNone,       kBoxGlbl, kMarkNone},
    {kAudioTagMp3,    fourcc("mp4a"), kOtiMp3,        kBoxEsds, kMarkNone},
    {kAudioTagAmrWbp, fourcc("sawp"), kOtiNone,       kBoxDamr, kMarkNone},
    {kAudioTagAmrNb,  fourcc("samr"), kOtiNone,       kBoxDamr, kMarkNone},
    {kAudioTagAmrWb,  fourcc("sawb"), kOtiNone,       kBoxDamr, kMarkNone},
    {kAudioTagAacRaw, fourcc("mp4a"), kOtiMpeg4Audio, kBoxEsds, kMarkNone},
    {kAudioTagAc3,    fourcc("mp4a"), kOtiAc3,        kBoxEsds, kMarkNone},
    {kAudioTagDts,    fourcc("mp4a"), kOtiDts,        kBoxEsds, kMarkNone},
    {kAudioTagMp4a,   fourcc("mp4a"), kOtiMpeg4Audio, kBoxEsds, kMarkNone},
    {kAudioTagAac,    fourcc("mp4a"), kOtiMpeg4Audio, kBoxEsds, kMarkNone},
    {kAudioTagQcelp,  fourcc("sqcp"), kOtiQcelp,      kBoxDqcp, kMarkQlcm},
    {kAudioTagEvrc,   fourcc("sevc"), kOtiEvrc,       kBoxGlbl, kMarkEvrcOrQlcm},
    {kAudioTagEvrcB,  fourcc("secb"), kOtiEvrc,       kBoxGlbl, kMarkEvrcOrQlcm},
    {kAudioTagEvrcWb, fourcc("secw"), kOtiEvrc,       kBoxGlbl, kMarkEvrcOrQlcm},
    {kAudioTagVmr,    fourcc("svmr"), kOtiNone,       kBoxGlbl, kMarkNone},
    {kAudioTagSmv,    fourcc("ssmv"), kOtiSmv,        kBoxDqcp, kMarkQlcm}, // a "glbl" is written
};
static constexpr audio_code kOtherAudioCode =
    {0,               fourcc("mp4a"), kOtiMpeg4Audio, kBoxEsds, kMarkNone};
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
    return p_track->m_iCodecPrivateSize >= kMinMarkedBytes &&
           mp4_mux_strncmp(bytes, mark, kMarkBytes) == 0;
}

static bool has_mark(const mp4_mux_track_t *p_track, private_mark mark)
{
    return (mark != kMarkNone && begins_with(p_track, "QLCM")) ||
           (mark == kMarkEvrcOrQlcm && begins_with(p_track, "EVRC"));
}

static int64_t estimate_box(const mp4_mux_track_t *p_track, estimated_box box)
{
    const int64_t private_bytes = p_track->m_iCodecPrivateSize;
    switch (box) {
    case kBoxGlbl:
        return private_bytes != 0 ? kBoxHeaderBytes + private_bytes : 0;
    case kBoxDqcp:
        return kDqcpBoxBytes;
    case kBoxDamr:
        return kDamrBoxBytes;
    case kBoxEsds:
        break;
    }
    return kEsdsFieldBytes + estimate_descriptors(p_track->m_iCodecPrivateSize);
}

int64_t assign_audio_codes(mp4_mux_track_t *p_track)
{
    const audio_code &code = find_audio_code(p_track->m_iCodec);
    const bool marked = has_mark(p_track, code.mark);
    p_track->m_uiFourCC = marked ? fourcc("mp4a") : code.entry;
    if (p_track->m_uiFourCC == fourcc("mp4a")) {
        p_track->m_uiObjectTypeIndication = code.object_type;
    }
    return kAudioEntryBytes + estimate_box(p_track, marked ? kBoxEsds : code.box);
}

int64_t assign_video_codes(mp4_mux_track_t *p_track)
{
    switch (p_track->m_uiFourCC) {
    case fourcc("s263"):
    case fourcc("h263"):
        return kVideoEntryBytes + kD263BoxBytes;
    case fourcc("avc1"): // the first frame may still provide private data
        return kVideoEntryBytes + kBoxHeaderBytes + p_track->m_iCodecPrivateSize;
    case fourcc("mp4v"):
        p_track->m_uiObjectTypeIndication = kOtiMpeg4Visual;
        return kVideoEntryBytes + estimate_box(p_track, kBoxEsds);
    default:
        return kVideoEntryBytes + estimate_box(p_track, kBoxGlbl);
    }
}

#include "mp4mux/first_frame.h"

#include "mp4mux/avc_record.h"
#include "mp4mux/avc_syntax.h"
#include "mp4mux/track.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

static size_t load_be32(const uint8_t *from)
{
    return static_cast<size_t>(from[0]) << 24 | static_cast<size_t>(from[1]) << 16 |
           static_cast<size_t>(from[2]) << 8 | from[3];
}

// Walks length-prefixed NAL units until both parameter sets are found, the frame ends, or a length
// exceeds it.
static parameter_sets find_parameter_sets(nal_unit frame)
{
    parameter_sets found = {};
    while (frame.size() > kNalLengthBytes && (found.sps.empty() || found.pps.empty())) {
        const size_t length = load_be32(frame.data());
        frame = frame.subspan(kNalLengthBytes);
        if (length > frame.size()) {
            break;
        }
        const nal_unit unit = frame.first(length);
        frame = frame.subspan(length);
        if (unit.empty()) {
            continue;
        }
        if (nal_unit_type(unit) == kNalTypeSps) {
            found.sps = unit;
        } else if (nal_unit_type(unit) == kNalTypePps) {
            found.pps = unit;
        }
    }
    return found;
}

int32_t take_avc_configuration(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                               const mp4_mux_putstream_t *frame)
{
    const parameter_sets sets =
        find_parameter_sets({frame->m_pbyData, static_cast<size_t>(frame->m_iDataSize)});
    if (sets.sps.size() < kMinSpsBytes || sets.pps.empty() || sets.sps.size() > UINT16_MAX ||
        sets.pps.size() > UINT16_MAX) {
        return 0;
    }
    const size_t record_bytes = avc_record_bytes(sets);
    uint8_t *record = static_cast<uint8_t *>(mux->m_stMem.m_pfnMalloc(record_bytes));
    if (record == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_MEMORY,
                    "Insufficient memory to allocate of m_pbyCodecPrivate");
    }
    mp4_mux_bs_t bs = {.m_pstMux = mux, .m_pstError = &mux->m_stLastError};
    mp4_mux_open_bitstream_from_external_memory(&bs, record, static_cast<int32_t>(record_bytes),
                                                nullptr);
    write_avc_record(&bs, sets);
    assert(bs.m_uiFill == record_bytes);

    p_track->m_pbyCodecPrivate = record;
    p_track->m_iCodecPrivateSize = static_cast<int32_t>(record_bytes);
    mux->m_iMoovSizeEstimate = static_cast<int32_t>(std::min<int64_t>(
        int64_t{mux->m_iMoovSizeEstimate} + p_track->m_iCodecPrivateSize, INT32_MAX));
    return 0;
}

int32_t take_ac3_configuration(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                               const mp4_mux_putstream_t *frame)
{
    if (frame->m_iDataSize == 0) {
        return 0;
    }
    return set_codec_private(mux, p_track, frame->m_pbyData, frame->m_iDataSize,
                             "Insufficient memory to allocate of m_pbyCodecPrivate ac3");
}

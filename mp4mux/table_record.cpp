#include "mp4mux/table_record.h"

#include "mp4mux/bitstream_file.h"

#include <algorithm>

namespace {

struct scratch_record {
    mp4_mux_bs_t *bs;
    int32_t header_bytes; // reserved before the records with an append callback
    uint32_t index;
    int32_t bytes; // 4 or 8
    uint64_t value;
};

} // namespace

static bool put_record(const mp4_mux_t *mux, const scratch_record &record)
{
    mp4_mux_bs_t *bs = record.bs;
    const int64_t reserved = mux->m_pfnAppendFile != nullptr ? record.header_bytes : 0;
    const int64_t start = reserved + int64_t{record.index} * record.bytes;
    for (int attempt = 0; attempt < 2 && bs_position(bs) >= start; attempt++) {
        bs_take_back(bs, start);
        if (record.bytes == 8) {
            mp4_mux_bs_write_be64(bs, record.value);
        } else {
            mp4_mux_bs_write_be32(bs, static_cast<uint32_t>(record.value));
        }
        if (bs_position(bs) == start + record.bytes) {
            return true;
        }
    }
    if (bs->m_pstError->m_iCode == 0) { // no write failed: the file reported a wrong position
        (void)fail(bs->m_pstError, MUX_ERR_SEEK, "can't get the position of a record");
    }
    return false;
}

bool put_offset(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint64_t offset)
{
    return put_record(mux, {.bs = &p_track->m_BsSTCO,
                            .header_bytes = kTableHeaderBytes,
                            .index = p_track->m_uiSampleCount,
                            .bytes = offset_record_bytes(mux),
                            .value = offset});
}

bool put_size(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint32_t sample_bytes)
{
    return put_record(mux, {.bs = &p_track->m_BsSTSZ,
                            .header_bytes = kSizeTableHeaderBytes,
                            .index = p_track->m_uiSampleCount,
                            .bytes = kSizeRecordBytes,
                            .value = sample_bytes});
}

bool put_sync_sample(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint32_t number)
{
    return put_record(mux, {.bs = &p_track->m_BsSTSS,
                            .header_bytes = kTableHeaderBytes,
                            .index = p_track->m_uiSyncSampleCount,
                            .bytes = kSyncRecordBytes,
                            .value = number});
}

bool put_run(const mp4_mux_t *mux, mp4_mux_track_t *p_track, int32_t samples, int32_t ticks)
{
    const int32_t written_runs = std::max(p_track->m_iSttsEntryCount, 0); // kNoRunYet counts as 0
    const uint64_t high = static_cast<uint32_t>(samples);
    return put_record(mux, {.bs = &p_track->m_BsSTTSDts,
                            .header_bytes = kTableHeaderBytes,
                            .index = static_cast<uint32_t>(written_runs),
                            .bytes = kRunRecordBytes,
                            .value = high << 32 | static_cast<uint32_t>(ticks)});
}

#include "mp4mux/moov/sample_table.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/box_writer.h"
#include "mp4mux/moov/sample_entry.h"
#include "mp4mux/moov/single_precision.h"
#include "mp4mux/moov/table_copy.h"
#include "mp4mux/table_record.h"

static constexpr uint32_t kStscBoxBytes = 28;

// Bytes of the cache block that the copies of a track may use, with the audio tables' region once
// the audio track is written.
static int32_t work_bytes(const mp4_mux_t *mux)
{
    return mux->m_iCacheSize + (mux->m_pAudioCache == nullptr ? mux->m_iAudioCacheSize : 0);
}

// A table's header precedes its records: with an append callback, in the scratch table.
static mp4_mux_bs_t *header_target(mp4_mux_t *mux, mp4_mux_bs_t *scratch)
{
    return mux->m_pfnAppendFile != nullptr ? scratch : mux->m_pBs;
}

static int32_t write_stsd_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const int64_t start = begin_box(bs, "stsd");
    mp4_mux_bs_write_be32(bs, 0); // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be32(bs, 1); // unsigned int(32) entry_count;
    const int32_t result = p_track->m_iType == MUX_TYPE_VIDEO ? write_video_box(mux, p_track)
                                                              : write_audio_box(mux, p_track);
    if (result < 0) {
        return tag_failure(&mux->m_stLastError, "<write_stsd_box", result);
    }
    const int32_t patched = update_size(bs, start);
    return patched < 0 ? tag_failure(&mux->m_stLastError, "<write_stsd_box", patched) : 0;
}

// Every frame is a chunk of its own, so that one entry describes all.
static void write_stsc_box(mp4_mux_t *mux)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    if (mux->m_pfnAppendFile != nullptr) {
        mux->m_llPendingPos = bs_position(bs);
        mux->m_uiPendingSize = kStscBoxBytes;
    }
    mp4_mux_bs_write_be32(bs, kStscBoxBytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "stsc");         // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0);             // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be32(bs, 1);             // unsigned int(32) entry_count;
    mp4_mux_bs_write_be32(bs, 1);             // unsigned int(32) first_chunk;
    mp4_mux_bs_write_be32(bs, 1);             // unsigned int(32) samples_per_chunk;
    mp4_mux_bs_write_be32(bs, 1);             // unsigned int(32) sample_description_index;
}

namespace {

// A box with the records of a scratch table.
struct table_box {
    const char *type;
    mp4_mux_bs_t *scratch;
    const char *name;
    const char *tag; // of its failures, or null
    int32_t header_bytes;
    uint32_t count; // of its records
    int32_t record_bytes;
};

} // namespace

static int32_t write_records(mp4_mux_t *mux, mp4_mux_track_t *p_track, const table_box &table)
{
    const int64_t records_bytes = int64_t{table.count} * table.record_bytes;
    const int64_t box_bytes = table.header_bytes + records_bytes;
    mp4_mux_bs_t *bs = header_target(mux, table.scratch);
    const int64_t records_start = bs_position(bs) + table.header_bytes;

    mp4_mux_bs_write_be32(bs, static_cast<uint32_t>(box_bytes)); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, table.type);                        // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0); // unsigned int(8) version; bit(24) flags;
    if (table.header_bytes == kSizeTableHeaderBytes) {
        mp4_mux_bs_write_be32(bs, 0); // unsigned int(32) sample_size = 0: each has a record
    }
    mp4_mux_bs_write_be32(bs, table.count); // unsigned int(32) entry_count;
    if (mux->m_pfnAppendFile != nullptr) {
        return bs_position(bs) == records_start
                   ? append_file(mux, p_track, table.scratch, box_bytes, table.name)
                   : MUX_ERR_WRITE; // recorded where a byte was dropped
    }
    return bs_direct_copy(mux->m_pBs, table.scratch, records_bytes, table.name);
}

// Writes a table's box and closes its scratch file.
static int32_t write_table(mp4_mux_t *mux, mp4_mux_track_t *p_track, const table_box &table)
{
    int32_t result = calc_stxx_cache(mux, p_track, table.scratch, work_bytes(mux));
    if (result >= 0) {
        result = write_records(mux, p_track, table);
    }
    return result < 0 ? tag_failure(&mux->m_stLastError, table.tag, result)
                      : close_scratch(table.scratch, table.name);
}

static int32_t write_stco_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    return write_table(mux, p_track,
                       {.type = mux->m_b32BitOffset != 0 ? "stco" : "co64",
                        .scratch = &p_track->m_BsSTCO,
                        .name = p_track->m_szSTCOName,
                        .tag = "<write_stco_box",
                        .header_bytes = kTableHeaderBytes,
                        .count = p_track->m_uiSampleCount,
                        .record_bytes = offset_record_bytes(mux)});
}

static int32_t write_stsz_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    return write_table(mux, p_track,
                       {.type = "stsz",
                        .scratch = &p_track->m_BsSTSZ,
                        .name = p_track->m_szSTSZName,
                        .tag = "<write_stsz_box",
                        .header_bytes = kSizeTableHeaderBytes,
                        .count = p_track->m_uiSampleCount,
                        .record_bytes = kSizeRecordBytes});
}

// A track without key frames, or of key frames alone, has no such box.
static int32_t write_stss_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    const uint32_t syncs = p_track->m_uiSyncSampleCount;
    if (syncs == 0 || syncs >= p_track->m_uiSampleCount) {
        return 0;
    }
    return write_table(mux, p_track,
                       {.type = "stss",
                        .scratch = &p_track->m_BsSTSS,
                        .name = p_track->m_szSTSSName,
                        .tag = "<write_stss_box",
                        .header_bytes = kTableHeaderBytes,
                        .count = syncs,
                        .record_bytes = kSyncRecordBytes});
}

// The box of the runs of durations: (count, delta) pairs.
static int32_t write_runs(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    return write_records(mux, p_track,
                         {.type = "stts",
                          .scratch = &p_track->m_BsSTTSDts,
                          .name = p_track->m_szSTTSDtsName,
                          .header_bytes = kTableHeaderBytes,
                          .count = static_cast<uint32_t>(p_track->m_iSttsEntryCount),
                          .record_bytes = kRunRecordBytes});
}

// The nearest whole number, kept within 32 bits.
static uint32_t round_to_uint32(float value)
{
    const float rounded = value + 0.5F;
    return rounded < 4294967296.0F ? static_cast<uint32_t>(rounded) : UINT32_MAX;
}

// One run for all samples, with their mean duration.
static void write_mean_stts_box(mp4_mux_bs_t *bs, const mp4_mux_track_t *p_track)
{
    const float duration_ms = static_cast<float>(p_track->m_uiLastTimeStamp);
    const float time_scale = static_cast<float>(p_track->m_uiTimeScale);
    const float samples = static_cast<float>(p_track->m_uiSampleCount);
    const uint32_t count = p_track->m_uiSampleCount != 0 ? p_track->m_uiSampleCount : 1;
    const float mean_ms = p_track->m_uiSampleCount != 0 ? duration_ms / samples : duration_ms;
    const uint32_t delta = round_to_uint32(mean_ms * time_scale / 1000.0F);

    mp4_mux_bs_write_be32(bs, 24);    // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "stts"); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0);     // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be32(bs, 1);     // unsigned int(32) entry_count;
    mp4_mux_bs_write_be32(bs, count); // unsigned int(32) sample_count;
    mp4_mux_bs_write_be32(bs, delta); // unsigned int(32) sample_delta;
}

static int32_t write_stts_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    int32_t result = 0;
    if (p_track->m_iType == MUX_TYPE_VIDEO) {
        result = calc_stxx_cache(mux, p_track, &p_track->m_BsSTTSDts, work_bytes(mux));
    }
    if (result >= 0 && p_track->m_iType == MUX_TYPE_VIDEO && p_track->m_iSttsEntryCount >= 2) {
        result = write_runs(mux, p_track);
    } else if (result >= 0) {
        write_mean_stts_box(mux->m_pBs, p_track);
    }
    if (result < 0) {
        return tag_failure(&mux->m_stLastError, "<write_stts_box", result);
    }
    result = close_scratch(&p_track->m_BsSTTS, p_track->m_szSTTSName);
    return result < 0 ? result : close_scratch(&p_track->m_BsSTTSDts, p_track->m_szSTTSDtsName);
}

static int32_t write_tables(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    int32_t result = write_stsd_box(mux, p_track);
    if (result >= 0) {
        write_stsc_box(mux);
        result = write_stco_box(mux, p_track);
    }
    if (result >= 0) {
        result = write_stsz_box(mux, p_track);
    }
    if (result >= 0 && p_track->m_iType == MUX_TYPE_VIDEO) {
        result = write_stss_box(mux, p_track);
    }
    return result < 0 ? result : write_stts_box(mux, p_track);
}

int32_t write_stbl_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    const int64_t start = begin_box(mux->m_pBs, "stbl");
    const int32_t result = write_tables(mux, p_track);
    if (result < 0) {
        if (result != MUX_ERR_CLOSE) { // the release tries again and reports it
            mux->m_pBs->m_bTorn = 1;
        }
        return tag_failure(&mux->m_stLastError, "<write_stbl_box", result);
    }
    return update_size(mux->m_pBs, start);
}

#include "mp4mux/moov/finish.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/box_writer.h"
#include "mp4mux/file_head.h"
#include "mp4mux/moov/movie_box.h"
#include "mp4mux/moov/table_copy.h"
#include "mp4mux/table_record.h"

#include <array>

static constexpr uint64_t kMaxMediaBytes = 0xFFFFFFF7; // with its header still a 32-bit size
static constexpr int64_t kLargeHeaderBytes = kFreeBoxBytes + kMdatHeaderBytes; // with a 64-bit size
static constexpr int kMaxFillerRuns = 3;

namespace {

enum trailer_result {
    kTrailerWritten,
    kTrailerFailed,
    kTrailerRunsFailed, // the duration runs could not be completed
};

struct scratch_table {
    mp4_mux_bs_t *bs;
    const char *name;
    const char *close_tag;
};

} // namespace

static std::array<scratch_table, 5> scratch_tables_of(mp4_mux_track_t *p_track)
{
    return {{
        {&p_track->m_BsSTCO, p_track->m_szSTCOName, "<mp4_mux_close.&p_track->m_BsSTCO"},
        {&p_track->m_BsSTSS, p_track->m_szSTSSName, "<mp4_mux_close.&p_track->m_BsSTSS"},
        {&p_track->m_BsSTSZ, p_track->m_szSTSZName, "<mp4_mux_close.&p_track->m_BsSTSZ"},
        {&p_track->m_BsSTTS, p_track->m_szSTTSName, "<mp4_mux_close.&p_track->m_BsSTTS"},
        {&p_track->m_BsSTTSDts, p_track->m_szSTTSDtsName, "<mp4_mux_close.&p_track->m_BsSTTSDts"},
    }};
}

// Flushes a scratch table and returns to its start, if it has a file.
static bool rewind_table(mp4_mux_bs_t *bs)
{
    if (bs->m_hFile == nullptr) {
        return true;
    }
    return mp4_mux_bs_write_flush(bs) >= 0 && mp4_mux_bs_fseek_reset(bs, 0) == 0;
}

// Closes the open run of durations. The last frame is in no run yet; its duration is 0.
static bool complete_runs(const mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    if (p_track->m_iSttsRunCount != 0) {
        if (!put_run(mux, p_track, p_track->m_iSttsRunCount, p_track->m_iSttsRunDelta)) {
            return false;
        }
        p_track->m_iSttsEntryCount++;
        p_track->m_iSttsSampleCount += p_track->m_iSttsRunCount;
    }
    const int64_t chunks = p_track->m_uiChunkCount;
    for (int i = 1; i <= kMaxFillerRuns && p_track->m_iSttsSampleCount < chunks; i++) {
        // The last run covers all samples that are left.
        const int32_t missing = static_cast<int32_t>(chunks - p_track->m_iSttsSampleCount);
        const int32_t samples = i < kMaxFillerRuns ? 1 : missing;
        if (!put_run(mux, p_track, samples, 0)) {
            return false;
        }
        p_track->m_iSttsEntryCount++;
        p_track->m_iSttsSampleCount += samples;
    }
    return true;
}

static trailer_result complete_tables(const mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    const bool is_video = p_track->m_iType == MUX_TYPE_VIDEO;
    if (!rewind_table(&p_track->m_BsSTCO)) {
        return kTrailerFailed;
    }
    if (is_video && !complete_runs(mux, p_track)) {
        return kTrailerRunsFailed;
    }
    if (!rewind_table(&p_track->m_BsSTTSDts) || !rewind_table(&p_track->m_BsSTSZ)) {
        return kTrailerFailed;
    }
    if (is_video && (!put_sync_sample(mux, p_track, 0) || !rewind_table(&p_track->m_BsSTSS))) {
        return kTrailerFailed;
    }
    return kTrailerWritten;
}

// Writes the size of the media data, which ends at the current position. The size is measured, not
// summed: a frame that failed halfway has left bytes that belong to no sample.
static bool fix_media_size(mp4_mux_t *mux)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const int64_t end = bs_position(bs);
    const int64_t header = mux->m_uiMdatPos;
    const uint64_t box_bytes = static_cast<uint64_t>(end - header);
    bool written = false;
    if (box_bytes > kMaxMediaBytes + kMdatHeaderBytes) {
        const int64_t start = header - kFreeBoxBytes;
        if (mp4_mux_bs_write_fseek_reset(bs, start) != 0) {
            return false;
        }
        mp4_mux_bs_write_be32(bs, 1);                         // unsigned int(32) size;
        mp4_mux_bs_write_tag(bs, "mdat");                     // unsigned int(32) type;
        mp4_mux_bs_write_be64(bs, box_bytes + kFreeBoxBytes); // unsigned int(64) largesize;
        written = bs_position(bs) == start + kLargeHeaderBytes;
    } else {
        if (mp4_mux_bs_write_fseek_reset(bs, header) != 0) {
            return false;
        }
        mp4_mux_bs_write_be32(bs, static_cast<uint32_t>(box_bytes)); // unsigned int(32) size;
        written = bs_position(bs) == header + kSizeFieldBytes;
    }
    return written && mp4_mux_bs_write_fseek_reset(bs, end) == 0;
}

static trailer_result write_trailer(mp4_mux_t *mux)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        const trailer_result result = complete_tables(mux, mux->m_pstTrack[i]);
        if (result != kTrailerWritten) {
            return result;
        }
    }
    if (!fix_media_size(mux)) {
        return kTrailerFailed;
    }
    if (mux->m_iCloseMemMode == kCloseMemLarge &&
        reset_write_cache2(bs, mux->m_pCloseMem, mux->m_iCloseMemSize / 2) < 0) {
        return kTrailerFailed;
    }
    bs->m_bTorn = 0; // bytes missing in the media data belong to no sample
    if (write_moov_box(mux) < 0 || !bs_write_out(bs)) {
        return kTrailerFailed;
    }
    // No reader can use a movie box that lacks a byte, a size or a table.
    return bs->m_bTorn != 0 ? kTrailerFailed : kTrailerWritten;
}

static void free_private_data(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    if (p_track->m_iCodecPrivateSize != 0 && p_track->m_pbyCodecPrivate != nullptr) {
        mux->m_stMem.m_pfnFree(p_track->m_pbyCodecPrivate);
        p_track->m_pbyCodecPrivate = nullptr;
    }
}

static void free_cache(mp4_mux_t *mux)
{
    if (mux->m_bExternalCache == 0 && mux->m_pCache != nullptr) {
        mux->m_stMem.m_pfnFree(mux->m_pCache);
        mux->m_pCache = nullptr;
    }
}

// Releases one track; stops at the first scratch file that cannot be closed.
static int32_t release_track(mp4_mux_t *mux, mp4_mux_track_t **slot)
{
    mp4_mux_track_t *p_track = *slot;
    free_private_data(mux, p_track);
    for (const scratch_table &table : scratch_tables_of(p_track)) {
        const int32_t result = close_scratch(table.bs, table.name);
        if (result < 0) {
            mp4_mux_add_err_string(table.close_tag, &mux->m_stLastError);
            return result;
        }
    }
    mux->m_stMem.m_pfnFree(p_track);
    *slot = nullptr;
    return 0;
}

static int32_t release_all(mp4_mux_t *mux)
{
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        const int32_t result = release_track(mux, &mux->m_pstTrack[i]);
        if (result < 0) {
            return result;
        }
    }
    free_cache(mux);
    const int32_t result = mp4_mux_close_bitstream_from_external_memory(&mux->m_Bs);
    if (result < 0) {
        mp4_mux_add_err_string("<mp4_mux_close.&pstMp4Mux->m_Bs", &mux->m_stLastError);
        return result;
    }
    mux->m_stMem.m_pfnFree(mux);
    return 0;
}

// A failed seek is the only failure that is not recorded where it happens. Its tags are kept.
static void record_failed_seek(mp4_mux_t *mux)
{
    const mp4_mux_last_error_t tags = mux->m_stLastError;
    bs_fail_to_seek(mux->m_pBs);
    mp4_mux_add_err_string(tags.m_szMessage, &mux->m_stLastError);
}

// Ends the file: with the trailer, or, without frames, with the head that is still cached.
static int32_t finish_file(mp4_mux_t *mux)
{
    trailer_result result = kTrailerWritten;
    if (static_cast<int64_t>(mux->m_ullMediaSize) > 0) {
        result = write_trailer(mux);
    } else if (!bs_write_out(mux->m_pBs)) {
        result = kTrailerFailed;
    }
    if (result == kTrailerWritten && mux->m_bTornHead == 0) {
        return 0;
    }
    if (result == kTrailerWritten) {
        fail(mux->m_pBs->m_pstError, MUX_ERR_WRITE, "the file's head is incomplete");
    } else if (mux->m_stLastError.m_iCode == 0) {
        record_failed_seek(mux);
    }
    if (result == kTrailerFailed) {
        mp4_mux_add_err_string("<write_trailer", &mux->m_stLastError);
    }
    return mp4_mux_add_err_string("<mp4_mux_close", &mux->m_stLastError);
}

int32_t mp4_mux_close(mp4_mux_t *mux)
{
    const bool was_recording = mux->m_iState == kMuxStateRecording;
    mux->m_iState = kMuxStateEnded;
    if (was_recording) {
        const int32_t result = finish_file(mux);
        if (result < 0) {
            return result;
        }
    }
    return release_all(mux);
}

// A handle is gone even if its close failed: it is not closed again.
static void abandon_file(mp4_mux_bs_t *bs, const char *name)
{
    if (bs->m_hFile == nullptr) {
        return;
    }
    if (bs->m_bCloseFailed == 0) {
        (void)mp4_mux_close_bitstream_from_external_memory(bs);
    }
    bs->m_hFile = nullptr;
    const mp4_mux_file_t &file = bs->m_pstMux->m_stFile;
    if (file.m_pfnRemove != nullptr && name != nullptr) {
        file.m_pfnRemove(name);
    }
}

void mp4_mux_release(mp4_mux_t *mux)
{
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        mp4_mux_track_t *p_track = mux->m_pstTrack[i];
        if (p_track == nullptr) { // released by the close
            continue;
        }
        free_private_data(mux, p_track);
        for (const scratch_table &table : scratch_tables_of(p_track)) {
            abandon_file(table.bs, table.name);
        }
        mux->m_stMem.m_pfnFree(p_track);
    }
    free_cache(mux);
    abandon_file(&mux->m_Bs, nullptr);
    mux->m_stMem.m_pfnFree(mux);
}

#include "mp4mux/moov/table_copy.h"

#include "mp4mux/bitstream_file.h"

#include <algorithm>
#include <cassert>
#include <cstdio>

// The output keeps at least this much cache when a table is read in one piece.
static constexpr int64_t kMinOutputCacheBytes = 16384;

int32_t close_scratch(mp4_mux_bs_t *scratch, const char *name)
{
    if (scratch->m_hFile == nullptr) {
        return 0;
    }
    if (scratch->m_bCloseFailed != 0) {
        return bs_fail_to_close(scratch);
    }
    const int32_t result = mp4_mux_close_bitstream_from_external_memory(scratch);
    const mp4_mux_file_t &file = scratch->m_pstMux->m_stFile;
    if (result == 0 && file.m_pfnRemove != nullptr && name != nullptr) {
        file.m_pfnRemove(name);
    }
    return result;
}

static bool overlaps(const uint8_t *a, const uint8_t *b, uint32_t bytes)
{
    const uintptr_t from_a = reinterpret_cast<uintptr_t>(a);
    const uintptr_t from_b = reinterpret_cast<uintptr_t>(b);
    return (from_a < from_b ? from_b - from_a : from_a - from_b) < bytes;
}

int32_t reset_write_cache2(mp4_mux_bs_t *bs, uint8_t *buffer, int32_t buffer_bytes)
{
    // Pending bytes that overlap their new place cannot be copied there.
    if (bs->m_uiFill >= static_cast<uint32_t>(buffer_bytes) ||
        (buffer != bs->m_pbyCache && overlaps(buffer, bs->m_pbyCache, bs->m_uiFill))) {
        assert(bs->m_hFile != nullptr);
        const int32_t flushed = mp4_mux_bs_write_flush(bs);
        if (flushed < 0) {
            return tag_failure(bs->m_pstError, "<reset_write_cache2", flushed);
        }
    }
    if (buffer != bs->m_pbyCache && bs->m_uiFill > 0) {
        bs->m_pstMux->m_stMem.m_pfnMemcpy(buffer, bs->m_pbyCache, bs->m_uiFill);
    }
    bs->m_pbyCache = buffer;
    bs->m_iCacheSize = buffer_bytes;
    if (bs->m_pbyBase != nullptr) {
        bs->m_pbyBase = buffer;
        bs->m_pbyEnd = buffer + buffer_bytes;
    }
    return 0;
}

// Sizes a scratch file and returns to its start.
static int32_t size_of_file(mp4_mux_bs_t *scratch, int64_t *file_bytes)
{
    const mp4_mux_file_t &file = scratch->m_pstMux->m_stFile;
    if (file.m_pfnFseek(scratch->m_hFile, 0, SEEK_END) == 0) {
        *file_bytes = file.m_pfnFtell(scratch->m_hFile);
        if (*file_bytes >= 0 && file.m_pfnFseek(scratch->m_hFile, 0, SEEK_SET) == 0) {
            return 0;
        }
    }
    return fail(scratch->m_pstError, MUX_ERR_SEEK, "can't size the scratch file");
}

// Moves the output's cache first: its pending bytes may be where the table's cache will be.
static int32_t place_caches(mp4_mux_bs_t *out, uint8_t *out_cache, int64_t out_bytes,
                            mp4_mux_bs_t *scratch, uint8_t *scratch_cache, int64_t scratch_bytes)
{
    const int32_t result = reset_write_cache2(out, out_cache, static_cast<int32_t>(out_bytes));
    if (result < 0) {
        return result;
    }
    return reset_write_cache2(scratch, scratch_cache, static_cast<int32_t>(scratch_bytes));
}

static int32_t share_cache_block(mp4_mux_t *mux, mp4_mux_bs_t *scratch, int64_t need_bytes,
                                 int64_t work_bytes)
{
    const int32_t flushed = mp4_mux_bs_write_flush(mux->m_pBs);
    if (flushed < 0) {
        return flushed;
    }
    const bool is_held = work_bytes - need_bytes > kMinOutputCacheBytes;
    const int64_t cache_bytes = is_held ? need_bytes : work_bytes / 2;
    const int64_t out_bytes = is_held ? work_bytes - need_bytes : work_bytes / 2;
    return place_caches(mux->m_pBs, mux->m_pCache + cache_bytes, out_bytes, scratch, mux->m_pCache,
                        cache_bytes);
}

static int32_t share_close_memory(mp4_mux_t *mux, mp4_mux_bs_t *scratch, int64_t need_bytes,
                                  int64_t work_bytes)
{
    const int64_t lent_bytes = mux->m_iCloseMemSize;
    const int64_t rest_bytes = lent_bytes - need_bytes;
    if (rest_bytes <= 0) {
        return place_caches(mux->m_pBs, mux->m_pCloseMem, lent_bytes, scratch, mux->m_pCache,
                            work_bytes);
    }
    if (rest_bytes >= work_bytes) {
        return place_caches(mux->m_pBs, mux->m_pCloseMem, rest_bytes, scratch,
                            mux->m_pCloseMem + rest_bytes, need_bytes);
    }
    return place_caches(mux->m_pBs, mux->m_pCache, work_bytes, scratch, mux->m_pCloseMem,
                        need_bytes);
}

// The table is in its own cache: the output may have all of the memory.
static int32_t read_from_cache(mp4_mux_t *mux, mp4_mux_bs_t *scratch, int32_t work_bytes)
{
    scratch->m_uiValid = scratch->m_uiFill;
    scratch->m_uiFill = 0;
    return mux->m_iCloseMemMode == kCloseMemNone
               ? reset_write_cache2(mux->m_pBs, mux->m_pCache, work_bytes)
               : reset_write_cache2(mux->m_pBs, mux->m_pCloseMem, mux->m_iCloseMemSize);
}

static int32_t share_memory(mp4_mux_t *mux, mp4_mux_bs_t *scratch, int32_t work_bytes)
{
    if (scratch->m_hFile == nullptr) {
        return read_from_cache(mux, scratch, work_bytes);
    }
    int64_t file_bytes = 0;
    const int32_t result = size_of_file(scratch, &file_bytes);
    if (result < 0) {
        return result;
    }
    const int64_t need_bytes = (file_bytes & ~int64_t{3}) + 4;
    return mux->m_iCloseMemMode == kCloseMemNone
               ? share_cache_block(mux, scratch, need_bytes, work_bytes)
               : share_close_memory(mux, scratch, need_bytes, work_bytes);
}

int32_t calc_stxx_cache(mp4_mux_t *mux, mp4_mux_track_t *, mp4_mux_bs_t *scratch,
                        int32_t work_bytes)
{
    if (scratch->m_hFile != nullptr && mux->m_pfnAppendFile != nullptr) {
        return 0;
    }
    const int32_t result = share_memory(mux, scratch, work_bytes);
    return result < 0 ? tag_failure(mux->m_pBs->m_pstError, "<calc_stxx_cache", result) : 0;
}

static int32_t copy_from_cache(mp4_mux_bs_t *out, const mp4_mux_bs_t *scratch, int64_t table_bytes)
{
    if (table_bytes > scratch->m_uiValid) {
        return fail(out->m_pstError, MUX_ERR_EOF, "the end of the table");
    }
    return mp4_mux_bs_write_bytes(out, scratch->m_pbyCache, static_cast<int32_t>(table_bytes));
}

// A table larger than its cache is read straight into the output's, which saves a copy.
static int32_t copy_large_file(mp4_mux_bs_t *out, mp4_mux_bs_t *scratch, int64_t table_bytes)
{
    for (int64_t left_bytes = table_bytes; left_bytes > 0;) {
        uint8_t *space = nullptr;
        const int32_t wanted_bytes = static_cast<int32_t>(std::min<int64_t>(left_bytes, INT32_MAX));
        const int32_t room_bytes = bs_lend_space(out, wanted_bytes, &space);
        if (room_bytes < 0) {
            return room_bytes;
        }
        const size_t got_bytes = scratch->m_pstMux->m_stFile.m_pfnFread(
            space, 1, static_cast<size_t>(room_bytes), scratch->m_hFile);
        if (got_bytes == 0) {
            return fail(scratch->m_pstError, MUX_ERR_EOF, "the end of the file(bs_read_bytes)");
        }
        out->m_uiFill += static_cast<uint32_t>(got_bytes);
        left_bytes -= static_cast<int64_t>(got_bytes);
    }
    return 0;
}

static int32_t copy_from_file(mp4_mux_bs_t *out, mp4_mux_bs_t *scratch, int64_t table_bytes,
                              const char *name)
{
    if (table_bytes > scratch->m_iCacheSize) {
        return copy_large_file(out, scratch, table_bytes);
    }
    int32_t result = 0;
    for (int64_t left_bytes = table_bytes; left_bytes > 0 && result >= 0; left_bytes -= result) {
        const uint8_t *bytes = nullptr;
        const int32_t got_bytes =
            bs_borrow_bytes(scratch, static_cast<int32_t>(left_bytes), &bytes);
        if (got_bytes < 0) {
            return got_bytes;
        }
        if (got_bytes == table_bytes) { // the whole table: free its storage before the output grows
            result = close_scratch(scratch, name);
        }
        if (result >= 0) {
            result = mp4_mux_bs_write_bytes(out, bytes, got_bytes);
            scratch->m_uiFill += static_cast<uint32_t>(got_bytes);
        }
    }
    return result;
}

int32_t bs_direct_copy(mp4_mux_bs_t *out, mp4_mux_bs_t *scratch, int64_t table_bytes,
                       const char *name)
{
    const int32_t result = scratch->m_hFile == nullptr
                               ? copy_from_cache(out, scratch, table_bytes)
                               : copy_from_file(out, scratch, table_bytes, name);
    return result < 0 ? tag_failure(out->m_pstError, "<bs_direct_copy", result) : 0;
}

// Writes the table's header into its file and leaves both files where the callback expects them.
static int32_t prepare_files(mp4_mux_bs_t *out, mp4_mux_bs_t *scratch)
{
    int32_t result = mp4_mux_bs_write_flush(out);
    if (result >= 0) {
        result = mp4_mux_bs_write_flush(scratch);
    }
    if (result >= 0) {
        result = mp4_mux_bs_fseek_reset(scratch, 0) == 0 ? 0 : MUX_ERR_SEEK;
    }
    return result;
}

// Extends the table box before the appended one up to it, and seeks to the end of the latter.
static int32_t absorb_gap(mp4_mux_t *mux, int64_t box_bytes)
{
    mp4_mux_bs_t *out = mux->m_pBs;
    if (mp4_mux_bs_write_fseek_reset(out, mux->m_llPendingPos) != 0) {
        return MUX_ERR_SEEK;
    }
    mp4_mux_bs_write_be32(out, mux->m_uiPendingSize); // unsigned int(32) size;
    const int64_t end = mux->m_llPendingPos + mux->m_uiPendingSize + box_bytes;
    return mp4_mux_bs_write_fseek_reset(out, end) == 0 ? 0 : MUX_ERR_SEEK;
}

static int32_t append_scratch_file(mp4_mux_t *mux, mp4_mux_bs_t *scratch, int64_t box_bytes,
                                   const char *name)
{
    mp4_mux_bs_t *out = mux->m_pBs;
    const int32_t prepared = prepare_files(out, scratch);
    if (prepared < 0) {
        return tag_failure(out->m_pstError, "<append_file", prepared);
    }
    out->m_bSeekDue = 1; // the callback moves the file
    const int32_t gap_bytes = mux->m_pfnAppendFile(out->m_hFile, scratch->m_hFile, 0);
    if (gap_bytes < 0) {
        return fail(out->m_pstError, MUX_ERR_APPEND, "");
    }
    scratch->m_hFile = nullptr; // closed by the callback
    if (mux->m_stFile.m_pfnRemove != nullptr) {
        mux->m_stFile.m_pfnRemove(name);
    }
    mux->m_uiPendingSize += static_cast<uint32_t>(gap_bytes);
    const int32_t absorbed = absorb_gap(mux, box_bytes);
    return absorbed < 0 ? tag_failure(out->m_pstError, "<append_file", absorbed) : 0;
}

int32_t append_file(mp4_mux_t *mux, mp4_mux_track_t *, mp4_mux_bs_t *scratch, int64_t box_bytes,
                    const char *name)
{
    if (scratch->m_hFile != nullptr) {
        const int32_t result = append_scratch_file(mux, scratch, box_bytes, name);
        if (result < 0) {
            return result;
        }
    } else {
        const int32_t result = copy_from_cache(mux->m_pBs, scratch, box_bytes);
        if (result < 0) {
            return tag_failure(mux->m_pBs->m_pstError, "<append_file", result);
        }
    }
    mux->m_llPendingPos += mux->m_uiPendingSize;
    mux->m_uiPendingSize = static_cast<uint32_t>(box_bytes);
    return 0;
}

// The memory that the close shares between the output and the table that it reads.
#include "mp4mux/moov/table_copy.h"
#include "tests/support/mux_recording.h"

#include <numeric>

using namespace mux_test;

namespace {

struct table {
    size_t bytes;
    bool has_file;
    size_t spare = bytes % 2 * 4; // after them, as in the table of sync samples
};

struct memory_case {
    int32_t work_bytes,
        output_bytes; // of the cache block: free, and the output's part while recording
    int32_t lent_bytes;
    bool starts_lent; // the output's cache has moved to the lent memory
    int32_t pending;  // bytes that the output has not written yet
};

class TableCopy : public MuxTest {
  protected:
    mp4_mux_t mux = make_context(true);
    Bytes block, lent, slice, expected; // of exact size, so that a sanitizer sees their ends

    static bool is_inside(const mp4_mux_bs_t &bs, const Bytes &memory)
    {
        const uintptr_t from = reinterpret_cast<uintptr_t>(memory.data());
        const uintptr_t at = reinterpret_cast<uintptr_t>(bs.m_pbyCache);
        return at >= from && at + static_cast<uint32_t>(bs.m_iCacheSize) <= from + memory.size();
    }
    static bool are_apart(const mp4_mux_bs_t &a, const mp4_mux_bs_t &b)
    {
        const uintptr_t from = reinterpret_cast<uintptr_t>(a.m_pbyCache);
        const uintptr_t other = reinterpret_cast<uintptr_t>(b.m_pbyCache);
        return from + static_cast<uint32_t>(a.m_iCacheSize) <= other ||
               other + static_cast<uint32_t>(b.m_iCacheSize) <= from;
    }

    void put(size_t count)
    {
        Bytes row(count);
        std::iota(row.begin(), row.end(), static_cast<uint8_t>(expected.size()));
        expected = expected + row;
        EXPECT_EQ(mp4_mux_bs_write_bytes(&mux.m_Bs, row.data(), static_cast<int32_t>(count)),
                  static_cast<int32_t>(count));
    }

    void open(const memory_case &c)
    {
        reset_world();
        expected.clear();
        mux.m_pBs = &mux.m_Bs;
        mux.m_Bs.m_pstMux = &mux;
        mux.m_Bs.m_pstError = &mux.m_stLastError;
        mux.m_pCache = block.data();
        mux.m_iCacheSize = c.output_bytes;
        mux.m_pCloseMem = lent.data();
        mux.m_iCloseMemSize = c.lent_bytes;
        mux.m_iCloseMemMode = c.lent_bytes == 0 ? kCloseMemNone : kCloseMemCache;
        mp4_mux_open_bitstream_from_external_memory(&mux.m_Bs, block.data(), c.output_bytes,
                                                    open_file("out.mp4"));
        put(static_cast<size_t>(c.pending));
        if (c.starts_lent) {
            EXPECT_EQ(reset_write_cache2(&mux.m_Bs, lent.data(), c.lent_bytes / 2), 0);
        }
    }

    // The output's part beside a table: all but the table in one piece.
    static int32_t output_share(const memory_case &c, const table &t)
    {
        const int32_t need = t.has_file ? static_cast<int32_t>(t.bytes + t.spare) / 4 * 4 + 4 : 0;
        if (c.lent_bytes == 0) {
            const bool is_much = need == 0 || c.work_bytes - need > 16384;
            return is_much ? c.work_bytes - need : c.work_bytes / 2;
        }
        const bool is_held = need < c.lent_bytes;
        return is_held && need != 0 ? std::max(c.work_bytes, c.lent_bytes - need) : c.lent_bytes;
    }

    // Copies a table after its header.
    void copy(const memory_case &c, const table &t)
    {
        mp4_mux_bs_t scratch = {.m_pstMux = &mux, .m_pstError = &mux.m_stLastError};
        Bytes records(t.bytes);
        std::iota(records.begin(), records.end(), uint8_t{0x81});
        slice = records + Bytes(t.spare);
        mp4_mux_open_bitstream_from_external_memory(&scratch, slice.data(),
                                                    static_cast<int32_t>(slice.size()),
                                                    t.has_file ? open_file("table") : nullptr);
        if (t.has_file) {
            world.files["table"].bytes = slice;
            world.files["table"].size = slice.size();
        } else {
            scratch.m_uiFill = static_cast<uint32_t>(slice.size());
        }
        ASSERT_EQ(calc_stxx_cache(&mux, nullptr, &scratch, c.work_bytes), 0);
        ASSERT_TRUE(is_inside(mux.m_Bs, block) || is_inside(mux.m_Bs, lent));
        ASSERT_TRUE(!t.has_file || is_inside(scratch, block) || is_inside(scratch, lent));
        ASSERT_TRUE(are_apart(mux.m_Bs, scratch));
        ASSERT_EQ(mux.m_Bs.m_iCacheSize, output_share(c, t));
        put(6);
        expected = expected + records;
        ASSERT_EQ(bs_direct_copy(&mux.m_Bs, &scratch, static_cast<int64_t>(t.bytes), "table"), 0);
        ASSERT_EQ(close_scratch(&scratch, "table"), 0);
    }

    // Two tables in turn: the second starts with the caches as the first left them.
    void check(const memory_case &c)
    {
        for (size_t n = 0; n < 4 * 9 * 2; n++) {
            open(c);
            copy(c, {1 + n / 4 % 9, n % 2 == 0});
            copy(c, {1 + n / 36 * 8, n / 2 % 2 == 0});
            put(2);
            ASSERT_GT(mp4_mux_bs_write_flush(&mux.m_Bs), 0);
            ASSERT_EQ(world.files["out.mp4"].bytes, expected);
            ASSERT_EQ(mp4_mux_close_bitstream_from_external_memory(&mux.m_Bs), 0);
            ASSERT_EQ(leftovers(), "") << "no copy onto itself either";
        }
    }
};

// All small sizes, and those around the minimum that the output keeps beside a table in one piece.
TEST_F(TableCopy, SharesTheMemoryWithoutLosingAByte)
{
    for (const int32_t work_bytes : {4, 5, 6, 9, 16388, 16393, 16399}) {
        block.resize(static_cast<size_t>(work_bytes));
        block.shrink_to_fit();
        for (int32_t lent_bytes = 0; lent_bytes <= 28; lent_bytes += 4) {
            lent.resize(static_cast<size_t>(lent_bytes));
            lent.shrink_to_fit();
            for (int32_t pending = 0; pending <= std::min(work_bytes, 18); pending++) {
                for (const int32_t audio_bytes : {0, 3}) {
                    for (const bool starts_lent : {false, lent_bytes != 0}) {
                        const memory_case c = {work_bytes, work_bytes - audio_bytes, lent_bytes,
                                               starts_lent, pending};
                        SCOPED_TRACE(testing::Message() << work_bytes << " free, " << audio_bytes
                                                        << " of the audio tables, " << lent_bytes
                                                        << " lent, " << pending << " pending");
                        check(c);
                        if (HasFatalFailure()) {
                            return;
                        }
                    }
                }
            }
        }
    }
}

} // namespace

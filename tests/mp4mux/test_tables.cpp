// The road of the sample tables: caches, scratch files, the memory lent for the close, the append
// callback, and sizes beyond 32 bits.
#include "tests/support/box_reader.h"
#include "tests/support/mux_callbacks.h"
#include "tests/support/mux_recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mman.h>

using namespace mux_test;
using box_reader::read_movie;
using testing::ElementsAre;

namespace {

class Tables : public testing::Test {
  protected:
    void SetUp() override
    {
        reset_world();
    }
    void TearDown() override
    {
        expect_clean();
    }

    static void expect_clean()
    {
        EXPECT_EQ(the_world().misuse, "");
        EXPECT_TRUE(the_world().memory.empty()) << "leaked memory";
        EXPECT_EQ(open_handles(), 0u);
        EXPECT_EQ(the_world().files.size(), 1u) << "scratch files are left";
    }
};

struct variant {
    cache_layout layout;
    int32_t close_memory;
    bool append;
};

std::vector<uint8_t> record(const variant &v, bool with_64bit, uint32_t frames)
{
    reset_world();
    recording r(with_64bit);
    r.set_cache(v.layout);
    if (v.close_memory > 0) {
        r.lend_close_memory(v.close_memory);
    }
    r.init.m_pfnAppendFile = v.append ? append_whole_file : nullptr;
    EXPECT_EQ(r.open(), 0) << r.message();
    EXPECT_EQ(put_programme(r, frames, 10), 0) << r.message();
    EXPECT_EQ(r.close(), 0) << r.message();
    return r.file();
}

TEST_F(Tables, MakeTheSameFileWhateverTheMemory)
{
    for (const bool with_64bit : {false, true}) {
        const std::vector<uint8_t> reference =
            record({cache_layout::own, 0, false}, with_64bit, 900);
        EXPECT_EQ(read_movie(reference).error, "");
        EXPECT_THAT(the_world().opened, ElementsAre("out.mp4")) << "these tables fit their caches";
        for (const cache_layout layout : {cache_layout::own, cache_layout::recorder,
                                          cache_layout::pooled, cache_layout::tiny}) {
            for (const int32_t close_memory : {0, 5, 5000, 60000, 1023999, 1024003, 0x300000}) {
                const variant v = {layout, close_memory, false};
                EXPECT_EQ(difference(record(v, with_64bit, 900), reference), "")
                    << static_cast<int>(layout) << " " << close_memory;
                expect_clean();
            }
        }
    }
}

TEST_F(Tables, OverflowIntoScratchFilesThatTheCloseRemoves)
{
    record({cache_layout::tiny, 0, false}, false, 50);
    EXPECT_THAT(the_world().opened,
                testing::UnorderedElementsAre(
                    "out.mp4", "/tmp/scratch/v_stco.tmp", "/tmp/scratch/v_stsz.tmp",
                    "/tmp/scratch/v_stss.tmp", "/tmp/scratch/v_stts_dts.tmp",
                    "/tmp/scratch/a_stco.tmp", "/tmp/scratch/a_stsz.tmp"));
    EXPECT_THAT(the_world().removed,
                ElementsAre("/tmp/scratch/a_stco.tmp", "/tmp/scratch/a_stsz.tmp",
                            "/tmp/scratch/v_stco.tmp", "/tmp/scratch/v_stsz.tmp",
                            "/tmp/scratch/v_stss.tmp", "/tmp/scratch/v_stts_dts.tmp"));
}

TEST_F(Tables, LieInTheCurrentDirectoryWithoutAnother)
{
    recording r(false, MUX_STREAM_VIDEO);
    r.init.m_pszTempDir = nullptr;
    r.set_cache(cache_layout::tiny);
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.video(0, 10), 0);
    ASSERT_EQ(r.video(40, 10), 0);
    ASSERT_EQ(r.video(80, 10), 0);
    ASSERT_EQ(r.close(), 0);
    EXPECT_THAT(the_world().opened, testing::Contains("v_stco.tmp"));
}

TEST_F(Tables, AreAppendedWholeWhereTheCallerCan)
{
    for (const bool with_64bit : {false, true}) {
        for (const cache_layout layout : {cache_layout::own, cache_layout::recorder,
                                          cache_layout::pooled, cache_layout::tiny}) {
            const box_reader::movie plain =
                read_movie(record({layout, 0, false}, with_64bit, 2000));
            const uint32_t appends = calls_of(call::append_fn);
            EXPECT_EQ(appends, 0u);
            const box_reader::movie appended =
                read_movie(record({layout, 0x300000, true}, with_64bit, 2000));
            expect_clean();
            EXPECT_EQ(appended.error, "") << static_cast<int>(layout);
            for (size_t i = 0; i < 2; i++) {
                EXPECT_EQ(appended.tracks.at(i).samples, plain.tracks.at(i).samples);
            }
            if (layout == cache_layout::tiny) {
                EXPECT_EQ(calls_of(call::append_fn), 6u);
            }
        }
    }
}

TEST_F(Tables, RefuseASyncTableWhenAllOrNoneAreSync)
{
    for (const uint32_t gop : {1u, 3u}) {
        recording r(false, MUX_STREAM_VIDEO);
        ASSERT_EQ(r.open(), 0);
        for (uint32_t i = 0; i < 9; i++) {
            ASSERT_EQ(r.video(i * 40, 10, i % gop == 0), 0);
        }
        ASSERT_EQ(r.close(), 0);
        const box_reader::movie movie = read_movie(r.file());
        EXPECT_EQ(find(movie.boxes, "moov/trak/mdia/minf/stbl/stss") != nullptr, gop != 1);
    }
}

// Memory that no one reads: frames of any size without their bytes.
class LargeFiles : public Tables {
  protected:
    static constexpr size_t kGhostBytes = size_t{1} << 28;
    static constexpr uint64_t kHeadBytes = 28 + 8;

    void SetUp() override
    {
        Tables::SetUp();
        void *memory = mmap(nullptr, kGhostBytes, PROT_NONE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        the_world().ghost = static_cast<const uint8_t *>(memory);
        the_world().ghost_bytes = kGhostBytes;
        the_world().hole_begin = 4096;
        the_world().hole_end = 0xFFF00000;
    }
    void TearDown() override
    {
        munmap(const_cast<uint8_t *>(the_world().ghost), kGhostBytes);
        Tables::TearDown();
    }

    // Frames that add up to `total` bytes.
    static int32_t put_ghosts(recording &r, uint64_t total)
    {
        uint32_t time_ms = 0;
        int32_t result = 0;
        while (total > 0 && result == 0) {
            mp4_mux_putstream_t frame = {};
            frame.m_pbyData = the_world().ghost;
            frame.m_iDataSize = static_cast<int32_t>(std::min<uint64_t>(total, kGhostBytes));
            frame.m_iType = MUX_TYPE_VIDEO;
            frame.m_uiTimeStamp = time_ms;
            result = QVR_MP4_MUX(MUX_PUTFRAME, &r.handle, &frame, nullptr);
            total -= static_cast<uint32_t>(frame.m_iDataSize);
            time_ms += 1000;
        }
        return result;
    }

    static std::vector<uint8_t> head_of(const recording &r)
    {
        const memory_file &file = *the_world().files.at(r.output);
        const auto &page = file.pages.at(0);
        return {page.begin() + 20, page.begin() + 36};
    }
};

TEST_F(LargeFiles, TakeALongMediaHeaderBeyond32Bits)
{
    struct {
        uint64_t media_bytes;
        const char *head;
    } const cases[] = {
        {0xFFFFFFF7, "00000008 'free' FFFFFFFF 'mdat'"},
        {0xFFFFFFF8, "00000001 'mdat' 0000000100000008"},
    };
    for (const auto &c : cases) {
        recording r(true, MUX_STREAM_VIDEO);
        r.set_cache(cache_layout::recorder);
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(put_ghosts(r, c.media_bytes), 0) << r.message();
        ASSERT_EQ(r.close(), 0);
        EXPECT_EQ(difference(head_of(r), bytes(c.head)), "");
        const std::vector<uint8_t> tail = read_file(r.output, kHeadBytes + c.media_bytes);
        const box_reader::movie movie = read_movie(tail);
        EXPECT_EQ(movie.error, "");
        EXPECT_EQ(movie.tracks.at(0).samples.back().offset, kHeadBytes + 15 * kGhostBytes);
        EXPECT_NE(find(movie.boxes, "moov/trak/mdia/minf/stbl/co64"), nullptr);
    }
}

TEST_F(LargeFiles, EndWhere32BitOffsetsEnd)
{
    recording r(true, MUX_STREAM_VIDEO);
    r.init.m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(put_ghosts(r, uint64_t{1} << 32), 0) << "the last frame begins below 4 GiB";
    EXPECT_EQ(put_ghosts(r, 1), MUX_ERR_INVALID);
    EXPECT_EQ(r.message(), "frame lies beyond 32-bit chunk offsets");
    ASSERT_EQ(r.close(), 0);
    const box_reader::movie movie =
        read_movie(read_file(r.output, kHeadBytes + (uint64_t{1} << 32)));
    EXPECT_EQ(movie.error, "");
    EXPECT_EQ(movie.tracks.at(0).samples.size(), 16u);
    EXPECT_NE(find(movie.boxes, "moov/trak/mdia/minf/stbl/stco"), nullptr);
}

TEST_F(LargeFiles, EndWhere32BitSeeksEnd)
{
    recording r(false, MUX_STREAM_VIDEO);
    ASSERT_EQ(r.open(), 0);
    const uint64_t most = 7 * kGhostBytes;
    ASSERT_EQ(put_ghosts(r, most), 0);
    EXPECT_EQ(put_ghosts(r, kGhostBytes), MUX_ERR_INVALID);
    EXPECT_EQ(r.message(), "frame lies beyond 32-bit seeks");
    EXPECT_EQ(put_ghosts(r, kGhostBytes - 2000), 0) << "a smaller one still has its place";
    ASSERT_EQ(r.close(), 0) << r.message();
    EXPECT_EQ(the_world().files_over_32bit, 0u);
    the_world().hole_end = 0; // what follows lies within the hole: only the head can be seen
    EXPECT_EQ(difference(head_of(r), bytes("00000008 'free' 7FFFF838 'mdat'")), "");
}

} // namespace

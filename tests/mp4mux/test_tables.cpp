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

class Tables : public MuxTest {};

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
            for (const int32_t close_memory :
                 {0, 5, 3608, 5000, 60000, 1023999, 1024003, 0x300000}) {
                const variant v = {layout, close_memory, false};
                EXPECT_EQ(difference(record(v, with_64bit, 900), reference), "")
                    << static_cast<int>(layout) << " " << close_memory;
                EXPECT_EQ(leftovers(), "");
            }
        }
    }
}

TEST_F(Tables, OverflowIntoScratchFilesThatTheCloseRemoves)
{
    for (const std::string directory : {"", "/tmp/scratch/"}) {
        reset_world();
        recording r;
        r.set_cache(cache_layout::tiny);
        r.init.m_pszTempDir = directory.empty() ? nullptr : "/tmp/scratch";
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(put_programme(r, 50, 10), 0);
        ASSERT_EQ(r.close(), 0);
        std::vector<std::string> names;
        for (const char *name : {"a_stco.tmp", "a_stsz.tmp", "v_stco.tmp", "v_stsz.tmp",
                                 "v_stss.tmp", "v_stts_dts.tmp"}) {
            names.push_back(directory + name);
        }
        EXPECT_EQ(the_world().removed, names);
        names.insert(names.begin(), "out.mp4");
        EXPECT_THAT(the_world().opened, testing::UnorderedElementsAreArray(names));
    }
}

TEST_F(Tables, AreAppendedWholeWhereTheCallerCan)
{
    using enum cache_layout;
    for (const bool with_64bit : {false, true}) {
        for (const cache_layout layout : {own, recorder, pooled, tiny}) {
            const box_reader::movie plain =
                read_movie(record({layout, 0, false}, with_64bit, 2000));
            EXPECT_EQ(calls_of(call::append), 0u);
            const box_reader::movie appended =
                read_movie(record({layout, 0x300000, true}, with_64bit, 2000));
            EXPECT_EQ(leftovers(), "");
            EXPECT_EQ(appended.error, "") << static_cast<int>(layout);
            EXPECT_EQ(appended.tracks.at(0).samples, plain.tracks.at(0).samples);
            EXPECT_EQ(appended.tracks.at(1).samples, plain.tracks.at(1).samples);
            EXPECT_TRUE(layout != tiny || calls_of(call::append) == 6);
        }
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
    }
    void TearDown() override
    {
        munmap(const_cast<uint8_t *>(the_world().ghost), kGhostBytes);
        Tables::TearDown();
    }

    // Frames that add up to `total` bytes, of which the file keeps none.
    static int32_t put_ghosts(recording &r, uint64_t total)
    {
        int32_t result = 0;
        for (uint32_t time_ms = 0; total > 0 && result == 0; time_ms += 1000) {
            const uint64_t size = std::min<uint64_t>(total, kGhostBytes);
            mp4_mux_putstream_t frame = {
                the_world().ghost, static_cast<int32_t>(size), MUX_TYPE_VIDEO, time_ms, 0, 0};
            result = QVR_MP4_MUX(MUX_PUTFRAME, &r.handle, &frame, nullptr);
            total -= size;
        }
        return result;
    }

    static void drop(uint64_t media_bytes)
    {
        the_world().hole_begin = kHeadBytes;
        the_world().hole_end = kHeadBytes + media_bytes;
    }

    // Checks the headers before the media data.
    // returns  the movie box behind them
    static box_reader::movie read_around_hole(const char *headers)
    {
        std::vector<uint8_t> file = read_file("out.mp4");
        EXPECT_EQ(std::vector<uint8_t>(file.begin() + 20, file.begin() + 36), bytes(headers));
        file.erase(file.begin(), file.begin() + kHeadBytes);
        const box_reader::movie movie = read_movie(file);
        EXPECT_EQ(movie.error, "");
        return movie;
    }
};

TEST_F(LargeFiles, TakeALongMediaHeaderBeyond32Bits)
{
    const struct {
        uint64_t media_bytes;
        const char *headers;
    } cases[] = {
        {0xFFFFFFF7, "00000008 'free' FFFFFFFF 'mdat'"},
        {0xFFFFFFF8, "00000001 'mdat' 0000000100000008"},
    };
    for (const auto &c : cases) {
        recording r(true, MUX_STREAM_VIDEO);
        r.set_cache(cache_layout::recorder);
        drop(c.media_bytes);
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(put_ghosts(r, c.media_bytes), 0) << r.message();
        ASSERT_EQ(r.close(), 0);
        const box_reader::movie movie = read_around_hole(c.headers);
        EXPECT_EQ(movie.tracks.at(0).samples.back().offset, kHeadBytes + 15 * kGhostBytes);
        EXPECT_NE(find(movie.boxes, "moov/trak/mdia/minf/stbl/co64"), nullptr);
    }
}

TEST_F(LargeFiles, EndWhere32BitOffsetsEnd)
{
    recording r(true, MUX_STREAM_VIDEO);
    r.init.m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    drop(uint64_t{1} << 32);
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(put_ghosts(r, uint64_t{1} << 32), 0) << "the last frame begins below 4 GiB";
    EXPECT_EQ(put_ghosts(r, 1), MUX_ERR_INVALID);
    EXPECT_EQ(r.message(), "frame lies beyond 32-bit chunk offsets");
    ASSERT_EQ(r.close(), 0);
    const box_reader::movie movie = read_around_hole("00000001 'mdat' 0000000100000010");
    EXPECT_EQ(movie.tracks.at(0).samples.size(), 16u);
    EXPECT_NE(find(movie.boxes, "moov/trak/mdia/minf/stbl/stco"), nullptr);
}

TEST_F(LargeFiles, EndWhere32BitSeeksEnd)
{
    recording r(false, MUX_STREAM_VIDEO);
    const uint64_t most = 8 * kGhostBytes - 2000;
    drop(most);
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(put_ghosts(r, 7 * kGhostBytes), 0);
    EXPECT_EQ(put_ghosts(r, kGhostBytes), MUX_ERR_INVALID);
    EXPECT_EQ(r.message(), "frame lies beyond 32-bit seeks");
    EXPECT_EQ(put_ghosts(r, kGhostBytes - 2000), 0) << "a smaller one still has its place";
    ASSERT_EQ(r.close(), 0) << r.message();
    EXPECT_EQ(read_around_hole("00000008 'free' 7FFFF838 'mdat'").tracks.at(0).samples.size(), 8u);
}

} // namespace

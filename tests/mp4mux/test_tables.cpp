// The road of the sample tables: caches, scratch files, the memory lent for the close, the append
// callback, and sizes beyond 32 bits.
#include "client/mp4_reader.h"
#include "tests/support/mux_recording.h"

#include <sys/mman.h>

using namespace mux_test;
using mp4_reader::read_movie;
using enum cache_layout;

namespace {

class Tables : public MuxTest {};

Bytes record(cache_layout layout, int32_t close_memory, bool with_64bit, bool append = false)
{
    reset_world();
    recording r(with_64bit);
    r.set_cache(layout);
    r.lend_close_memory(close_memory);
    r.init.m_pfnAppendFile = append ? append_whole_file : nullptr;
    EXPECT_EQ(r.open(), 0) << r.message();
    EXPECT_EQ(put_programme(r, 900, 10), 0) << r.message();
    EXPECT_EQ(r.close(), 0) << r.message();
    EXPECT_EQ(leftovers(), "");
    return world.files["out.mp4"].bytes;
}

TEST_F(Tables, MakeTheSameFileWhateverTheMemory)
{
    for (const bool with_64bit : {false, true}) {
        const Bytes reference = record(own, 0, with_64bit);
        const mp4_reader::movie plain = read_movie(reference);
        EXPECT_EQ(plain.error, "");
        EXPECT_EQ(world.opened.size(), 1u) << "these tables fit their caches";
        for (const cache_layout layout : {own, recorder, pooled, tiny}) {
            SCOPED_TRACE(static_cast<int>(layout));
            for (const int size : {0, 5, 3608, 5000, 60000, 1023999, 1024003, 0x300000}) {
                EXPECT_TRUE(record(layout, size, with_64bit) == reference) << size;
                EXPECT_EQ(world.calls[call::append], 0u);
            }
            const Bytes file = record(layout, 0x300000, with_64bit, true);
            EXPECT_TRUE(layout != tiny || world.calls[call::append] == 6);
            const mp4_reader::movie appended = read_movie(file);
            EXPECT_EQ(appended.error, "");
            EXPECT_EQ(appended.tracks.at(0).samples, plain.tracks.at(0).samples);
            EXPECT_EQ(appended.tracks.at(1).samples, plain.tracks.at(1).samples);
        }
    }
}

TEST_F(Tables, OverflowIntoScratchFilesThatTheCloseRemoves)
{
    for (const std::string directory : {"", "/tmp/scratch/"}) {
        reset_world();
        recording r;
        r.set_cache(tiny);
        r.init.m_pszTempDir = directory.empty() ? nullptr : "/tmp/scratch";
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(put_programme(r, 50, 10), 0);
        ASSERT_EQ(r.close(), 0);
        std::vector<std::string> names;
        for (const char *name : {"a_stco", "a_stsz", "v_stco", "v_stsz", "v_stss", "v_stts_dts"}) {
            names.push_back(directory + name + ".tmp");
        }
        EXPECT_EQ(world.removed, names);
        names.emplace_back("out.mp4");
        EXPECT_THAT(world.opened, testing::UnorderedElementsAreArray(names));
    }
}

// Frames of any size without their bytes: memory that no one reads.
TEST_F(Tables, EndWhereOffsetsAndSeeksEnd)
{
    constexpr size_t kGhostBytes = size_t{1} << 28;
    constexpr size_t kHeadBytes = 28 + 8;
    constexpr uint64_t k4GiB = uint64_t{1} << 32;
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    void *memory = mmap(nullptr, kGhostBytes, PROT_NONE, flags, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    // clang-format off
    const struct {
        bool with_64bit;
        uint32_t options;
        uint64_t media_bytes, beyond; // and the size of a frame that has no place behind them
        const char *message, *headers, *offsets;
    } cases[] = {
        {true, 0, 0xFFFFFFF7, 0, "", "00000008 'free' FFFFFFFF 'mdat'", "co64"},
        {true, 0, 0xFFFFFFF8, 0, "", "00000001 'mdat' 0000000100000008", "co64"},
        {true, MUX_OPTION_32BIT_OFFSET, k4GiB, 1, "frame lies beyond 32-bit chunk offsets",
         "00000001 'mdat' 0000000100000010", "stco"},
        {false, 0, 8 * kGhostBytes - 2000, 2000, "frame lies beyond 32-bit seeks",
         "00000008 'free' 7FFFF838 'mdat'", "stco"},
    };
    // clang-format on
    for (const auto &c : cases) {
        reset_world();
        world.ghost = static_cast<const uint8_t *>(memory);
        world.ghost_bytes = kGhostBytes;
        world.hole_begin = kHeadBytes;
        world.hole_end = kHeadBytes + c.media_bytes;
        recording r(c.with_64bit, MUX_STREAM_VIDEO);
        r.init.m_uiOptions = c.options;
        ASSERT_EQ(r.open(), 0);
        const auto put = [&](uint64_t at, uint64_t size) {
            mp4_mux_putstream_t frame = {world.ghost,
                                         static_cast<int32_t>(size),
                                         MUX_TYPE_VIDEO,
                                         static_cast<uint32_t>(at / 100000),
                                         0,
                                         0};
            return QVR_MP4_MUX(MUX_PUTFRAME, &r.handle, &frame, nullptr);
        };
        for (uint64_t at = 0; at < c.media_bytes; at += kGhostBytes) {
            const uint64_t size = std::min<uint64_t>(c.media_bytes - at, kGhostBytes);
            if (size < kGhostBytes && c.beyond > 1) { // a smaller one still has its place
                EXPECT_EQ(put(at, kGhostBytes), MUX_ERR_INVALID);
            }
            ASSERT_EQ(put(at, size), 0) << r.message();
        }
        EXPECT_EQ(c.beyond == 0 ? 0 : put(k4GiB, c.beyond), c.beyond == 0 ? 0 : MUX_ERR_INVALID);
        EXPECT_EQ(r.message(), c.message);
        ASSERT_EQ(r.close(), 0) << r.message();
        Bytes file = world.files["out.mp4"].bytes;
        EXPECT_EQ(Bytes(file.begin() + 20, file.begin() + kHeadBytes), bytes(c.headers));
        file.erase(file.begin(), file.begin() + kHeadBytes);
        const mp4_reader::movie movie = read_movie(file);
        EXPECT_EQ(movie.error, "");
        const size_t frames = static_cast<size_t>((c.media_bytes + kGhostBytes - 1) / kGhostBytes);
        EXPECT_EQ(movie.tracks.at(0).samples.size(), frames);
        EXPECT_EQ(movie.tracks[0].samples.back().offset,
                  kHeadBytes + (frames - 1) * uint64_t{kGhostBytes});
        const std::string table = std::string("moov/trak/mdia/minf/stbl/") + c.offsets;
        EXPECT_NE(find(movie.boxes, table), nullptr);
    }
    munmap(memory, kGhostBytes);
}

} // namespace

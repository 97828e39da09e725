// Times, names and sizes of files that do not depend on the set-up.
#include "mp4mux/moov/sample_entry.h"
#include "mp4mux/sample_entry_codes.h"
#include "mp4read/mp4_reader.h"
#include "tests/support/mux_recording.h"

using namespace mux_test;
using mp4_reader::find;
using mp4_reader::read_movie;

namespace {

class File : public MuxTest {
  protected:
    static mp4_reader::movie finish(recording &r)
    {
        EXPECT_EQ(r.close(), 0) << r.message();
        const mp4_reader::movie movie = read_movie(world.files["out.mp4"].bytes);
        EXPECT_EQ(first_fault(movie), "");
        return movie;
    }
};

TEST_F(File, TakesItsDurationsFromTheTimeStamps)
{
    struct {
        std::vector<uint32_t> times_ms, durations;
    } const cases[] = {
        {{0, 33, 66, 100}, {2970, 2970, 3060, 0}},
        {{500, 540, 580}, {45000, 3600, 3600}}, // the first run begins at 0, not at the first frame
        {{40}, {3600}},                         // one frame: the mean
        {{0, 40, 20, 60}, {3600, static_cast<uint32_t>(-1800), 3600, 0}},
        {{0, 0, 0, 40}, {3600, 0, 0, 0}}, // the open run at 0 is dropped and replaced
        {{0, 23861000}, {2147490000, 0}}, // beyond the short headers
    };
    for (const auto &c : cases) {
        reset_world();
        recording r;
        ASSERT_EQ(r.open(), 0);
        for (const uint32_t time_ms : c.times_ms) {
            ASSERT_EQ(r.video(time_ms, 10), 0);
            ASSERT_EQ(r.audio(time_ms, 10), 0);
        }
        const mp4_reader::movie movie = finish(r);
        std::vector<uint32_t> durations;
        for (const mp4_reader::sample &sample : movie.tracks.at(1).samples) {
            durations.push_back(sample.duration);
        }
        EXPECT_EQ(durations, c.durations);
        EXPECT_EQ(movie.duration, c.times_ms.back() * 90u);
        EXPECT_EQ(movie.tracks[0].media_duration, c.times_ms.back() * 48u);
        const bool is_long = c.times_ms.back() > 100000;
        const mp4_reader::box &video = find(movie.boxes, "moov")->children.at(2);
        EXPECT_EQ(find(video.children, "tkhd")->size, is_long ? 104u : 92u);
        EXPECT_EQ(find(video.children, "mdia/mdhd")->size, is_long ? 44u : 32u);
        EXPECT_EQ(find(movie.boxes, "moov/trak/mdia/mdhd")->size, 32u) << "of the audio track";
    }
}

// No format tag leads to this sample entry.
TEST_F(File, DescribesAc3ByItsFirstFrame)
{
    Bytes frame = bytes("00000000 54 40 E1");
    uint8_t cache[100];
    mp4_mux_t mux = make_context(true);
    mux.m_pBs = &mux.m_Bs;
    mux.m_Bs.m_pstMux = &mux;
    mp4_mux_open_bitstream_from_external_memory(mux.m_pBs, cache, sizeof(cache), nullptr);
    mp4_mux_track_t track = {.m_iType = MUX_TYPE_AUDIO, .m_pbyCodecPrivate = frame.data()};
    track.m_uiFourCC = code("ac-3");
    track.m_iCodec = kAudioTagAc3;
    EXPECT_LT(write_audio_box(&mux, &track), 0) << "without the frame";
    EXPECT_EQ(mp4_mux_bs_write_fseek_reset(mux.m_pBs, 0), 0);
    track.m_iCodecPrivateSize = 7;
    EXPECT_EQ(write_audio_box(&mux, &track), 47);
    EXPECT_EQ(Bytes(cache + 36, cache + 47), bytes("0000000B 'dac3' 50 3D 40"));
}

TEST_F(File, OverflowsIntoScratchFilesThatTheCloseRemoves)
{
    for (const std::string directory : {"", "/tmp/scratch/"}) {
        reset_world();
        recording r;
        r.set_cache(cache_layout::tiny);
        r.init.m_pszTempDir = directory.empty() ? nullptr : "/tmp/scratch";
        ASSERT_EQ(r.open(), 0);
        for (uint32_t i = 0; i < 20; i++) {
            ASSERT_EQ(r.video(i * i, 9, i % 2 == 0), 0);
            ASSERT_EQ(r.audio(i * 20, 9), 0);
        }
        EXPECT_EQ(world.calls[call::malloc], 5u) << "no frame allocates";
        ASSERT_EQ(r.close(), 0);
        std::vector<std::string> names;
        for (const char *name : {"a_stco", "a_stsz", "v_stco", "v_stsz", "v_stss", "v_stts_dts"}) {
            names.push_back(directory + name + ".tmp");
        }
        EXPECT_EQ(world.removed, names);
        names.emplace_back("out.mp4");
        EXPECT_THAT(world.opened, testing::UnorderedElementsAreArray(names));
        EXPECT_EQ(check_samples(r), "");
    }
}

// Advances a recording as if it had written media data, of which the file keeps nothing.
void skip(recording &r, uint64_t bytes)
{
    memory_file &file = world.files["out.mp4"];
    mp4_mux_bs_t &bs = static_cast<mp4_mux_t *>(r.handle)->m_Bs;
    ASSERT_GT(mp4_mux_bs_write_flush(&bs), 0);
    world.hole_begin = file.position;
    world.hole_end = file.position += bytes;
    bs.m_llFilePos += static_cast<int64_t>(bytes);
}

TEST_F(File, EndsWhereOffsetsAndSeeksEnd)
{
    // clang-format off
    const struct {
        bool with_64bit;
        uint32_t options;
        uint64_t frame_offset;
        bool is_last; // no frame can follow it
        const char *message, *headers;
    } cases[] = {
        {true, 0, 0x10000000F, false, "", "00000008 'free' FFFFFFFF 'mdat'"},
        {true, 0, 0x100000010, false, "", "00000001 'mdat' 0000000100000008"},
        {true, MUX_OPTION_32BIT_OFFSET, 0xFFFFFFF4, true, "frame is beyond 32-bit chunk offsets",
         "00000008 'free' FFFFFFE4 'mdat'"},
        {false, 0, INT32_MAX - 1004, true, "frame is beyond 32-bit seeks",
         "00000008 'free' 7FFFFC03 'mdat'"},
    };
    // clang-format on
    for (const auto &c : cases) {
        reset_world();
        recording r(c.with_64bit, MUX_STREAM_VIDEO);
        r.init.m_uiOptions = c.options;
        ASSERT_EQ(r.open(), 0);
        skip(r, c.frame_offset - 36);
        EXPECT_TRUE(c.with_64bit || r.video(0, 13) == MUX_ERR_INVALID) << "one byte too many";
        ASSERT_EQ(r.video(0, 12), 0) << r.message();
        EXPECT_EQ(c.is_last ? r.video(40, 12) : 0, c.is_last ? MUX_ERR_INVALID : 0);
        EXPECT_EQ(r.message(), c.message);
        ASSERT_EQ(r.close(), 0) << r.message();
        Bytes file = world.files["out.mp4"].bytes;
        EXPECT_EQ(Bytes(file.begin() + 20, file.begin() + 36), bytes(c.headers));
        file.erase(file.begin(), file.begin() + 36 + 12);
        const mp4_reader::movie movie = read_movie(file);
        EXPECT_EQ(first_fault(movie), "");
        EXPECT_EQ(movie.tracks.at(0).samples.at(0).offset, c.frame_offset);
    }
}

} // namespace

// The finished file, byte by byte and through an independent reader.
#include "tests/support/box_reader.h"
#include "tests/support/mux_callbacks.h"
#include "tests/support/mux_recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace mux_test;
using box_reader::find;
using box_reader::read_movie;

namespace {

class File : public testing::Test {
  protected:
    void SetUp() override
    {
        reset_world();
    }
    void TearDown() override
    {
        EXPECT_EQ(the_world().misuse, "");
        EXPECT_TRUE(the_world().memory.empty()) << "leaked memory";
        EXPECT_EQ(open_handles(), 0u);
        EXPECT_EQ(the_world().files.size(), 1u) << "scratch files are left";
    }
};

// The beginning of both tracks' boxes is the same but for the track header.
const char kTrackTail[] = "00010000 00000000 00000000 00000000 00010000 00000000"
                          "00000000 00000000 40000000";

std::vector<uint8_t> expected_head()
{
    return bytes("00000014 'ftyp' '3g2a' 00000200 '3g2a'"
                 "00000008 'free'"
                 "00000014 'mdat' 000000017F 'abc' 00000000");
}

// One frame of 3 bytes at offset 41 and 2 ms. Sizes added up by hand: esds 39, mp4a 75, stsd 91,
// stbl 195, minf 255, mdia 328, trak 428.
std::vector<uint8_t> expected_audio_track()
{
    return bytes(std::string("000001AC 'trak'"
                             "0000005C 'tkhd' 0000000F C6EFD7CE C6EFD7CE 00000001 00000000"
                             "000000B4 0000000000000000 0000 0000 0100 0000") +
                 kTrackTail +
                 "00000000 00000000"
                 "00000148 'mdia'"
                 "00000020 'mdhd' 0000000F C6EFD7CE C6EFD7CE 0000BB80 00000060 94A0 0000"
                 "00000021 'hdlr' 00000000 00000000 'soun' 00000000 00000000 00000000 00"
                 "000000FF 'minf' 00000010 'smhd' 00000000 0000 0000"
                 "00000024 'dinf' 0000001C 'dref' 00000000 00000001 0000000C 'url ' 00000001"
                 "000000C3 'stbl'"
                 "0000005B 'stsd' 00000000 00000001"
                 "0000004B 'mp4a' 000000000000 0001 0000 0000 00000000 0002 0010 0000 0000"
                 "BB80 0000"
                 "00000027 'esds' 00000000 03 19 0001 00 04 11 40 15 000000 00000000 00000000"
                 "05 02 1190 06 01 02"
                 "0000001C 'stsc' 00000000 00000001 00000001 00000001 00000001"
                 "00000014 'stco' 00000000 00000001 00000029"
                 "00000018 'stsz' 00000000 00000000 00000001 00000003"
                 "00000018 'stts' 00000000 00000001 00000001 00000060");
}

// A key frame of 5 bytes at offset 36 and 0 ms, a frame of 4 bytes at 44 and 40 ms. Sizes: avcC 33,
// avc1 119, stsd 135, stbl 275, minf 339, mdia 412, trak 512.
std::vector<uint8_t> expected_video_track()
{
    return bytes(std::string("00000200 'trak'"
                             "0000005C 'tkhd' 0000000F C6EFD7CE C6EFD7CE 00000002 00000000"
                             "00000E10 0000000000000000 0000 0000 0000 0000") +
                 kTrackTail +
                 "01400000 00F00000"
                 "0000019C 'mdia'"
                 "00000020 'mdhd' 0000000F C6EFD7CE C6EFD7CE 00015F90 00000E10 0000 0000"
                 "00000021 'hdlr' 00000000 00000000 'vide' 00000000 00000000 00000000 00"
                 "00000153 'minf' 00000014 'vmhd' 00000001 0000000000000000"
                 "00000024 'dinf' 0000001C 'dref' 00000000 00000001 0000000C 'url ' 00000001"
                 "00000113 'stbl'"
                 "00000087 'stsd' 00000000 00000001"
                 "00000077 'avc1' 000000000000 0001 0000 0000 00000000 00000000 00000000"
                 "0140 00F0 00480000 00480000 00000000 0001"
                 "0000000000000000 0000000000000000 0000000000000000 0000000000000000"
                 "0018 FFFF"
                 "00000021 'avcC' 01 42C01E FF E1 000A 6742C01EDA0507E84010 01 0004 68CE3C80"
                 "0000001C 'stsc' 00000000 00000001 00000001 00000001 00000001"
                 "00000018 'stco' 00000000 00000002 00000024 0000002C"
                 "0000001C 'stsz' 00000000 00000000 00000002 00000005 00000004"
                 "00000014 'stss' 00000000 00000001 00000001"
                 "00000020 'stts' 00000000 00000002 00000001 00000E10 00000001 00000000");
}

std::vector<uint8_t> expected_movie()
{
    const std::vector<uint8_t> header =
        bytes(std::string("000004AB 'moov'"
                          "0000006C 'mvhd' 00000000 C6EFD7CE C6EFD7CE 00015F90 00000E10"
                          "00010000 0100 0000 0000000000000000") +
              kTrackTail + "00000000 00000000 00000000 00000000 00000000 00000000 00000003");
    const std::vector<uint8_t> user_data =
        bytes("0000008B 'udta'"
              "00000050 'cprt' 00000000 15C7"
              "'Recorded from a terrestrial digital multimedia broadcast service.' 00"
              "00000033 'name' 00000000 00"
              "'UNKNOWN - QVR_MP4_MUX 1.00 - 20261124' 00");
    return header + expected_audio_track() + expected_video_track() + user_data;
}

TEST_F(File, IsExactToTheByte)
{
    recording r;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.put(MUX_TYPE_VIDEO, bytes("000000017F"), 0, true), 0);
    ASSERT_EQ(r.put(MUX_TYPE_AUDIO, bytes("'abc'"), 2), 0);
    ASSERT_EQ(r.put(MUX_TYPE_VIDEO, bytes("00000000"), 40), 0);
    ASSERT_EQ(r.close(), 0);
    EXPECT_EQ(r.handle, nullptr);
    EXPECT_EQ(difference(r.file(), expected_head() + expected_movie()), "");
    EXPECT_EQ(read_movie(r.file()).error, "");
}

TEST_F(File, WithoutFramesIsItsHead)
{
    recording r;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.close(), 0);
    EXPECT_EQ(r.file(), bytes("00000014 'ftyp' '3g2a' 00000200 '3g2a' 00000008 'free'"
                              "00000000 'mdat'"));
}

TEST_F(File, BeginsWithTheCallersBoxes)
{
    for (const cache_layout layout : {cache_layout::own, cache_layout::tiny}) {
        recording r;
        r.set_cache(layout);
        const std::vector<uint8_t> brands = bytes("'isom' 'av' 0000");
        const std::vector<uint8_t> data = bytes("0102030405");
        const mp4_mux_userbox_t boxes[] = {
            {0x31727375, data.data(), 5}, {0x32727375, nullptr, 0}, {0x00007375, data.data(), 2}};
        const uint32_t codes[] = {0x6D6F7369, 0x00007661};
        const mp4_mux_ftyp_t ftyp = {{'m', 'p', '4', '2'}, 7, codes, 2};
        r.input.m_pstFtyp = &ftyp;
        r.input.m_pstUserBox = boxes;
        r.input.m_uiUserBoxCount = 3;
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(r.close(), 0);
        EXPECT_EQ(r.file(), bytes("00000016 'ftyp' 'mp42' 00000007 'isom' 'av'"
                                  "0000000D 'usr1' 0102030405 00000008 'us' 0102"
                                  "00000008 'free' 00000000 'mdat'"));
        reset_world();
        the_world().files["out.mp4"] = std::make_shared<memory_file>();
    }
}

TEST_F(File, GivesEveryFrameBack)
{
    recording r(true);
    r.init.m_uiOptions = 0;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(put_programme(r, 100, 12), 0);
    const int64_t estimate = r.estimate;
    ASSERT_EQ(r.close(), 0);
    const std::vector<uint8_t> file = r.file();
    const box_reader::movie movie = read_movie(file);
    ASSERT_EQ(movie.error, "");
    // The estimate counts a 16-byte stss header and one run of durations for good measure.
    EXPECT_NEAR(static_cast<double>(estimate), static_cast<double>(file.size()), 64);
    EXPECT_NE(find(movie.boxes, "moov/trak/mdia/minf/stbl/co64"), nullptr);

    const box_reader::track *video = box_reader::find_track(movie, "vide");
    const box_reader::track *audio = box_reader::find_track(movie, "soun");
    ASSERT_EQ(video->samples.size(), 100u);
    ASSERT_EQ(audio->samples.size(), 100u);
    uint64_t offset = 36;
    for (size_t i = 0; i < 100; i++) {
        const box_reader::sample &v = video->samples[i];
        const uint32_t size = static_cast<uint32_t>(40 + i * 13 % 90);
        const uint64_t time_ms = i * 33 + i / 3;
        EXPECT_EQ(v.offset, offset);
        EXPECT_EQ(v.size, size);
        EXPECT_EQ(v.sync, i % 12 == 0);
        EXPECT_EQ(v.time, time_ms * 90);
        EXPECT_EQ(file[v.offset], static_cast<uint8_t>(time_ms * 31 + size * 7));
        offset += size;
        EXPECT_EQ(audio->samples[i].offset, offset);
        EXPECT_EQ(audio->samples[i].size, 20 + i * 7 % 30);
        offset += audio->samples[i].size;
    }
    EXPECT_EQ(video->avc.sps.at(0), kSps);
    EXPECT_EQ(video->avc.pps.at(0), kPps);
    EXPECT_EQ(audio->esds.specific_info, kAudioConfig);
    EXPECT_EQ(audio->esds.object_type, 0x40u);
    EXPECT_EQ(audio->esds.stream_type, 5u);
    EXPECT_EQ(audio->sample_rate, 48000u);
    EXPECT_EQ(movie.creation_time, 3337607118u);
}

TEST_F(File, TellsItsSizeInAdvance)
{
    recording r(false, MUX_STREAM_VIDEO);
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.video(0, 1000, true), 0);
    const int64_t movie_estimate = 255 + 357 + 22 + 8 + 86;
    EXPECT_EQ(r.estimate, 36 + 1000 + movie_estimate + 8 + 4 + 8);
    ASSERT_EQ(r.close(), 0);

    recording sound(false, MUX_STREAM_AUDIO);
    ASSERT_EQ(sound.open(), 0);
    ASSERT_EQ(sound.audio(0, 10), 0);
    EXPECT_EQ(sound.estimate, 36 + 10 + 675 + 8);
    ASSERT_EQ(sound.close(), 0);
}

TEST_F(File, TakesItsDurationsFromTheTimeStamps)
{
    struct {
        std::vector<uint32_t> times_ms;
        std::vector<uint32_t> durations;
    } const cases[] = {
        {{0, 33, 66, 100}, {2970, 2970, 3060, 0}},
        {{500, 540, 580}, {45000, 3600, 3600}}, // the first run counts from 0 to the first frame
        {{40}, {3600}},                         // one frame: the mean
        {{0, 40, 20, 60}, {3600, static_cast<uint32_t>(-1800), 3600, 0}},
    };
    for (const auto &c : cases) {
        reset_world();
        recording r(false, MUX_STREAM_VIDEO);
        ASSERT_EQ(r.open(), 0);
        for (const uint32_t time_ms : c.times_ms) {
            ASSERT_EQ(r.video(time_ms, 10, true), 0);
        }
        ASSERT_EQ(r.close(), 0);
        const box_reader::movie movie = read_movie(r.file());
        EXPECT_EQ(movie.error, "");
        std::vector<uint32_t> durations;
        for (const box_reader::sample &sample : movie.tracks.at(0).samples) {
            durations.push_back(sample.duration);
            EXPECT_TRUE(sample.sync);
        }
        EXPECT_EQ(durations, c.durations);
        EXPECT_EQ(find(movie.boxes, "moov/trak/mdia/minf/stbl/stss"), nullptr);
    }
}

TEST_F(File, GivesAudioItsMeanDuration)
{
    recording r(false, MUX_STREAM_AUDIO);
    ASSERT_EQ(r.open(), 0);
    for (uint32_t i = 0; i < 1000; i++) {
        ASSERT_EQ(r.audio(i * 21333 / 999, 8), 0);
    }
    ASSERT_EQ(r.close(), 0);
    const box_reader::movie movie = read_movie(r.file());
    ASSERT_EQ(movie.error, "");
    EXPECT_EQ(movie.tracks.at(0).samples.at(999).duration, 1024u);
    EXPECT_EQ(movie.tracks[0].media_duration, 21333u * 48);
}

TEST_F(File, HoldsLongTimesInLongHeaders)
{
    recording r;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.video(0, 10, true), 0);
    ASSERT_EQ(r.video(23861000, 10), 0);
    ASSERT_EQ(r.audio(23861000, 10), 0);
    ASSERT_EQ(r.close(), 0);
    const std::vector<uint8_t> file = r.file();
    const box_reader::movie movie = read_movie(file);
    ASSERT_EQ(movie.error, "");
    EXPECT_EQ(movie.duration, 2147490000u);
    const box_reader::box *audio = &find(movie.boxes, "moov")->children.at(1);
    const box_reader::box *video = &find(movie.boxes, "moov")->children.at(2);
    EXPECT_EQ(find(audio->children, "tkhd")->size, 104u);
    EXPECT_EQ(find(audio->children, "mdia/mdhd")->size, 32u);
    EXPECT_EQ(find(video->children, "tkhd")->size, 104u);
    EXPECT_EQ(find(video->children, "mdia/mdhd")->size, 44u);
    EXPECT_EQ(movie.tracks.at(1).media_duration, 2147490000u);
    EXPECT_EQ(movie.tracks[1].movie_duration, 2147490000u);
}

TEST_F(File, NamesATrackWithoutFramesAsTheCallerDid)
{
    recording r;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.video(0, 10, true), 0);
    ASSERT_EQ(r.close(), 0);
    const box_reader::movie movie = read_movie(r.file());
    ASSERT_EQ(movie.tracks.size(), 2u);
    EXPECT_EQ(movie.tracks[0].id, 78u);
    EXPECT_EQ(movie.tracks[0].creation_time, 0u);
    EXPECT_EQ(movie.tracks[1].id, 2u);
    EXPECT_EQ(movie.next_track_id, 3u);
}

struct sound {
    int32_t tag;
    std::vector<uint8_t> config;
    const char *type;
    const char *child; // its bytes in full; null for an esds
    uint32_t object_type;
};

TEST_F(File, ChoosesTheSoundsSampleEntryByItsTag)
{
    const sound cases[] = {
        {0x0001, {}, "NONE", "", 0},
        {0x0001, {9, 8}, "NONE", "0000000A 'glbl' 0908", 0},
        {0x0055, {}, "mp4a", nullptr, 0x6B},
        {0x0057, {}, "samr", "00000011 'damr' 'ukwn' 00 81FF 00 01", 0},
        {0x2000, {1, 2, 3, 4, 5, 6}, "mp4a", nullptr, 0xD3},
        {0xCC00, {1, 2}, "sqcp", "0000000E 'dqcp' 'ukwn' 00 01", 0},
        {0xCC00, bytes("'QLCM' 00"), "mp4a", nullptr, 0xE1},
        {0xCC00, bytes("'EVRC' 00"), "sqcp", "0000000E 'dqcp' 'ukwn' 00 01", 0},
        {0xCD01, bytes("'EVRC' 00"), "mp4a", nullptr, 0xA0},
        {0xCD01, bytes("'EVRC'"), "secb", "0000000C 'glbl' 'EVRC'", 0},
        {0xCD20, {}, "ssmv", "", 0},
        {0x1234, {}, "mp4a", nullptr, 0x40},
    };
    for (const sound &c : cases) {
        reset_world();
        recording r(false, MUX_STREAM_AUDIO);
        r.input.m_iAudioCodec = c.tag;
        r.audio_private = c.config;
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(r.audio(0, 10), 0);
        ASSERT_EQ(r.close(), 0);
        const std::vector<uint8_t> file = r.file();
        const box_reader::movie movie = read_movie(file);
        ASSERT_EQ(movie.error, "") << c.tag;
        const box_reader::track &track = movie.tracks.at(0);
        EXPECT_EQ(track.entry_type, c.type) << c.tag;
        EXPECT_EQ(track.esds.object_type, c.object_type) << c.tag;
        EXPECT_EQ(track.esds.specific_info, c.child == nullptr ? c.config : std::vector<uint8_t>{});
        const std::vector<uint8_t> stsd =
            payload(file, *find(movie.boxes, "moov/trak/mdia/minf/stbl/stsd"));
        if (c.child != nullptr) {
            EXPECT_EQ(std::vector<uint8_t>(stsd.begin() + 8 + 36, stsd.end()), bytes(c.child));
        }
    }
}

TEST_F(File, ChoosesThePicturesSampleEntryByItsCode)
{
    struct {
        uint32_t code;
        std::vector<uint8_t> config;
        const char *type;
        const char *child;
    } const cases[] = {
        {0x34363248, annex_b_parameter_sets(), "avc1", nullptr}, // "H264"
        {0x33363273, {}, "s263", "0000000F 'd263' 'ukwn' 00 0A 00"},
        {0x5634504D,
         {},
         "mp4v",
         "00000023 'esds' 00000000 03 15 0001 00 04 0D 20 11 000000 00000000 00000000 06 01 02"},
        {0x58585858, {}, "xxxx", ""},
        {0x58585858, {1, 2, 3}, "xxxx", "0000000B 'glbl' 010203"},
    };
    for (const auto &c : cases) {
        reset_world();
        recording r(false, MUX_STREAM_VIDEO);
        r.input.m_uiVideoFourCC = c.code;
        r.video_private = c.config;
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(r.video(0, 10), 0);
        ASSERT_EQ(r.close(), 0);
        const std::vector<uint8_t> file = r.file();
        const box_reader::movie movie = read_movie(file);
        ASSERT_EQ(movie.error, "") << c.type;
        EXPECT_EQ(movie.tracks.at(0).entry_type, c.type);
        const std::vector<uint8_t> stsd =
            payload(file, *find(movie.boxes, "moov/trak/mdia/minf/stbl/stsd"));
        if (c.child != nullptr) {
            EXPECT_EQ(std::vector<uint8_t>(stsd.begin() + 8 + 86, stsd.end()), bytes(c.child));
        }
    }
}

TEST_F(File, WritesLongDescriptorSizesInGroups)
{
    recording r(false, MUX_STREAM_AUDIO);
    r.audio_private.assign(200, 0x5A);
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.audio(0, 10), 0);
    ASSERT_EQ(r.close(), 0);
    const std::vector<uint8_t> file = r.file();
    const box_reader::movie movie = read_movie(file);
    ASSERT_EQ(movie.error, "");
    EXPECT_EQ(movie.tracks.at(0).esds.specific_info, r.audio_private);
    const std::vector<uint8_t> size_bytes = bytes("05 81 48 5A");
    EXPECT_NE(std::search(file.begin(), file.end(), size_bytes.begin(), size_bytes.end()),
              file.end());
}

// An Annex B stream with start codes of four bytes, taken apart.
struct programme {
    std::vector<uint8_t> config;              // what lies in front of the first picture
    std::vector<std::vector<uint8_t>> frames; // one slice each, behind its length
};

programme read_programme()
{
    std::ifstream in(TDMBREC_SOURCE_DIR "/samples/programme.h264", std::ios::binary);
    const std::vector<uint8_t> stream{std::istreambuf_iterator<char>(in), {}};
    programme result;
    const std::vector<uint8_t> start = {0, 0, 0, 1};
    auto at = std::search(stream.begin(), stream.end(), start.begin(), start.end());
    while (at != stream.end()) {
        const auto begin = at + 4;
        at = std::search(begin, stream.end(), start.begin(), start.end());
        const std::vector<uint8_t> unit(begin, at);
        if ((unit[0] & 0x1F) != 7 && (unit[0] & 0x1F) != 8) {
            const uint8_t high = static_cast<uint8_t>(unit.size() >> 8);
            result.frames.push_back(std::vector<uint8_t>{0, 0, high} +
                                    std::vector{static_cast<uint8_t>(unit.size())} + unit);
        } else if (result.frames.empty()) {
            result.config = result.config + start + unit;
        }
    }
    return result;
}

TEST_F(File, HoldsARealProgramme)
{
    const programme p = read_programme();
    ASSERT_GT(p.frames.size(), 100u);
    recording r(false, MUX_STREAM_VIDEO);
    r.video_private = p.config;
    ASSERT_EQ(r.open(), 0);
    for (uint32_t i = 0; i < p.frames.size(); i++) {
        ASSERT_EQ(r.put(MUX_TYPE_VIDEO, p.frames[i], i * 1000 / 30, i % 30 == 0), 0);
    }
    ASSERT_EQ(r.close(), 0);
    const std::vector<uint8_t> file = r.file();
    const box_reader::movie movie = read_movie(file);
    ASSERT_EQ(movie.error, "");
    const box_reader::track &track = movie.tracks.at(0);
    ASSERT_EQ(track.samples.size(), p.frames.size());
    for (size_t i = 0; i < p.frames.size(); i++) {
        const auto begin = file.begin() + static_cast<ptrdiff_t>(track.samples[i].offset);
        EXPECT_EQ(std::vector<uint8_t>(begin, begin + track.samples[i].size), p.frames[i]);
    }
    if (const char *path = std::getenv("MUX_TEST_OUTPUT")) { // to look at it with other readers
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char *>(file.data()),
                   static_cast<std::streamsize>(file.size()));
    }
}

} // namespace

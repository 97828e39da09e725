// The finished file, byte by byte and through an independent reader.
#include "mp4mux/box_writer.h"
#include "mp4mux/moov/sample_entry.h"
#include "mp4mux/sample_entry_codes.h"
#include "client/mp4_reader.h"
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
        EXPECT_EQ(movie.error, "");
        return movie;
    }
};

// The beginning of both tracks' boxes is the same but for the track header.
const char kTrackTail[] = "00010000 00000000 00000000 00000000 00010000 00000000"
                          "00000000 00000000 40000000";

Bytes expected_head()
{
    return bytes("00000014 'ftyp' '3g2a' 00000200 '3g2a'"
                 "00000008 'free'"
                 "00000014 'mdat' 000000017F 'abc' 00000000");
}

// One frame of 3 bytes at offset 41 and 2 ms. Sizes added up by hand: esds 39, mp4a 75, stsd 91,
// stbl 195, minf 255, mdia 328, trak 428.
Bytes expected_audio_track()
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
Bytes expected_video_track()
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

Bytes expected_movie()
{
    const Bytes header =
        bytes(std::string("000004AB 'moov'"
                          "0000006C 'mvhd' 00000000 C6EFD7CE C6EFD7CE 00015F90 00000E10"
                          "00010000 0100 0000 0000000000000000") +
              kTrackTail + "00000000 00000000 00000000 00000000 00000000 00000000 00000003");
    const Bytes user_data =
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
    r.input.m_uiVideoFourCC = fourcc("H264"); // another name of "avc1"
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.put(MUX_TYPE_VIDEO, bytes("000000017F"), 0, true), 0);
    ASSERT_EQ(r.put(MUX_TYPE_AUDIO, bytes("'abc'"), 2), 0);
    ASSERT_EQ(r.put(MUX_TYPE_VIDEO, bytes("00000000"), 40), 0);
    ASSERT_EQ(r.close(), 0);
    EXPECT_EQ(r.handle, nullptr);
    EXPECT_THAT(world.files["out.mp4"].bytes,
                testing::ElementsAreArray(expected_head() + expected_movie()));
    EXPECT_EQ(read_movie(world.files["out.mp4"].bytes).error, "");
}

TEST_F(File, WithoutFramesIsItsHead)
{
    recording r;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.close(), 0);
    EXPECT_EQ(world.files["out.mp4"].bytes,
              bytes("00000014 'ftyp' '3g2a' 00000200 '3g2a' 00000008 'free'"
                    "00000000 'mdat'"));
}

TEST_F(File, BeginsWithTheCallersBoxes)
{
    for (const cache_layout layout : {cache_layout::own, cache_layout::tiny}) {
        recording r;
        r.set_cache(layout);
        const size_t start = layout == cache_layout::tiny ? 3 : 0; // of a file that goes on
        r.init.m_uiOptions = MUX_OPTION_OUTPUT_IS_HANDLE;
        r.init.m_pOutput = open_file("out.mp4");
        static_cast<memory_file *>(r.init.m_pOutput)->position = start;
        const Bytes data = bytes("0102030405");
        const mp4_mux_userbox_t boxes[] = {
            {0x31727375, data.data(), 5}, {0x32727375, nullptr, 0}, {0x00007375, data.data(), 2}};
        const uint32_t codes[] = {0x6D6F7369, 0x00007661};
        const mp4_mux_ftyp_t ftyp = {{'m', 'p', '4', '2'}, 7, codes, 2};
        r.input.m_pstFtyp = &ftyp;
        r.input.m_pstUserBox = boxes;
        r.input.m_uiUserBoxCount = 3;
        ASSERT_EQ(r.open(), 0);
        ASSERT_EQ(r.close(), 0);
        EXPECT_EQ(world.files["out.mp4"].bytes,
                  Bytes(start) + bytes("00000016 'ftyp' 'mp42' 00000007 'isom' 'av'"
                                       "0000000D 'usr1' 0102030405 00000008 'us' 0102"
                                       "00000008 'free' 00000000 'mdat'"));
    }
}

TEST_F(File, GivesEveryFrameBack)
{
    recording r(true);
    r.init.m_uiOptions = 0;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(put_programme(r, 100, 12), 0);
    const int64_t estimate = r.estimate;
    const mp4_reader::movie movie = finish(r);
    EXPECT_EQ(check_samples(r), "");
    // The estimate counts a 16-byte stss header and one run of durations for good measure.
    EXPECT_NEAR(static_cast<double>(estimate),
                static_cast<double>(world.files["out.mp4"].bytes.size()), 64);
    EXPECT_NE(find(movie.boxes, "moov/trak/mdia/minf/stbl/co64"), nullptr);
    const mp4_reader::track *video = mp4_reader::find_track(movie, "vide");
    const mp4_reader::track *audio = mp4_reader::find_track(movie, "soun");
    EXPECT_EQ(video->samples.size() + audio->samples.size(), 200u);
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
        std::vector<uint32_t> times_ms, durations;
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
        const mp4_reader::movie movie = finish(r);
        std::vector<uint32_t> durations;
        for (const mp4_reader::sample &sample : movie.tracks.at(0).samples) {
            durations.push_back(sample.duration);
            EXPECT_TRUE(sample.sync);
        }
        EXPECT_EQ(durations, c.durations);
        EXPECT_EQ(find(movie.boxes, "moov/trak/mdia/minf/stbl/stss"), nullptr);
    }
    recording sound(false, MUX_STREAM_AUDIO); // takes the mean
    ASSERT_EQ(sound.open(), 0);
    for (uint32_t i = 0; i < 1000; i++) {
        ASSERT_EQ(sound.audio(i * 21333 / 999, 8), 0);
    }
    const mp4_reader::movie movie = finish(sound);
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
    const mp4_reader::movie movie = finish(r);
    EXPECT_EQ(movie.duration, 2147490000u);
    const std::vector<mp4_reader::box> &boxes = find(movie.boxes, "moov")->children;
    for (const size_t number : {1u, 2u}) { // audio, video
        EXPECT_EQ(find(boxes.at(number).children, "tkhd")->size, 104u);
        EXPECT_EQ(find(boxes[number].children, "mdia/mdhd")->size, number == 1 ? 32u : 44u);
    }
    EXPECT_EQ(movie.tracks.at(1).media_duration, 2147490000u);
    EXPECT_EQ(movie.tracks[1].movie_duration, 2147490000u);
}

TEST_F(File, NamesATrackWithoutFramesAsTheCallerDid)
{
    recording r;
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.video(0, 10, true), 0);
    const mp4_reader::movie movie = finish(r);
    EXPECT_EQ(movie.tracks.at(0).id, 78u);
    EXPECT_EQ(movie.tracks[0].creation_time, 0u);
    EXPECT_EQ(movie.tracks.at(1).id, 2u);
    EXPECT_EQ(movie.next_track_id, 3u);
}

// The type and the codec-specific box of a track's sample entry.
Bytes sample_entry(int32_t type, uint32_t code, Bytes config)
{
    const mp4_mux_init_t callbacks = make_callbacks(true);
    uint8_t cache[1000];
    mp4_mux_t mux = {};
    mux.m_stMem.m_pfnMemcpy = callbacks.m_pfnMemcpy;
    mux.m_pBs = &mux.m_Bs;
    mux.m_Bs.m_pstMux = &mux;
    mp4_mux_open_bitstream_from_external_memory(mux.m_pBs, cache, sizeof(cache), nullptr);
    mp4_mux_track_t track = {};
    track.m_iType = type;
    track.m_uiTrackID = 0x12345;
    track.m_iCodec = static_cast<int32_t>(code);
    track.m_uiFourCC = code;
    track.m_pbyCodecPrivate = config.data();
    track.m_iCodecPrivateSize = static_cast<int32_t>(config.size());
    if (code != fourcc("ac-3")) {
        type == MUX_TYPE_VIDEO ? assign_video_codes(&track) : assign_audio_codes(&track);
    } else {
        track.m_iCodec = AUDIO_TAG_AC3;
    }
    const int32_t size =
        type == MUX_TYPE_VIDEO ? write_video_box(&mux, &track) : write_audio_box(&mux, &track);
    const size_t fixed = type == MUX_TYPE_VIDEO ? 86 : 36;
    return size < 0 ? Bytes{} : Bytes(cache + 4, cache + 8) + Bytes(cache + fixed, cache + size);
}

std::string esds(const char *sizes_and_type, const char *config)
{
    return "'esds' 00000000 03" + std::string(sizes_and_type).substr(0, 2) + "2345 00 04" +
           std::string(sizes_and_type).substr(2) + "000000 00000000 00000000" + config + "060102";
}

TEST_F(File, ChoosesTheSampleEntryByTheCode)
{
    const struct {
        int32_t type;
        uint32_t code;
        const char *config;
        std::string entry;
    } cases[] = {
        {2, 0x0001, "", "'NONE'"},
        {2, 0x0001, "0908", "'NONE' 0000000A 'glbl' 0908"},
        {2, 0x0055, "", "'mp4a' 00000023" + esds("150D 6B 15", "")},
        {2, 0x0057, "", "'samr' 00000011 'damr' 'ukwn' 00 81FF 00 01"},
        {2, 0x2000, "010203", "'mp4a' 00000028" + esds("1A12 D3 15", "05 03 010203")},
        {2, 0xCC00, "0102", "'sqcp' 0000000E 'dqcp' 'ukwn' 00 01"},
        {2, 0xCC00, "'QLCM' 00", "'mp4a' 0000002A" + esds("1C14 E1 15", "05 05 'QLCM' 00")},
        {2, 0xCC00, "'EVRC' 00", "'sqcp' 0000000E 'dqcp' 'ukwn' 00 01"},
        {2, 0xCD01, "'EVRC' 00", "'mp4a' 0000002A" + esds("1C14 A0 15", "05 05 'EVRC' 00")},
        {2, 0xCD01, "'EVRC'", "'secb' 0000000C 'glbl' 'EVRC'"},
        {2, 0xCD20, "", "'ssmv'"},
        {2, 0x1234, "", "'mp4a' 00000023" + esds("150D 40 15", "")},
        {2, fourcc("ac-3"), "00000000 54 40 E1", "'ac-3' 0000000B 'dac3' 50 3D 40"},
        {2, fourcc("ac-3"), "00000000 54 40", ""},
        {1, fourcc("s263"), "", "'s263' 0000000F 'd263' 'ukwn' 00 0A 00"},
        {1, fourcc("mp4v"), "", "'mp4v' 00000023" + esds("150D 20 11", "")},
        {1, fourcc("xxxx"), "", "'xxxx'"},
        {1, fourcc("xxxx"), "010203", "'xxxx' 0000000B 'glbl' 010203"},
        {1, fourcc("avc1"), "01 42C01E FF E1", "'avc1' 00000008 'avcC'"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(sample_entry(c.type, c.code, bytes(c.config)), bytes(c.entry)) << c.entry;
    }
    const Bytes config(200, 0x5A); // sizes of two bytes
    EXPECT_EQ(sample_entry(2, 0xAAC0, config),
              bytes("'mp4a' 000000F0 'esds' 00000000 03 8161 2345 00 04 8158 40 15"
                    "000000 00000000 00000000 05 8148") +
                  config + bytes("060102"));
}

} // namespace

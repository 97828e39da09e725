// Every set-up of a recording, against a file built here byte by byte.
#include "tests/support/mux_recording.h"

#include <algorithm>

using namespace mux_test;

namespace {

// A stream's code and configuration; the type of its sample entry and the box in it ("{id}": the
// track's); the bytes by which the estimate exceeds them.
struct stream {
    uint32_t code;
    Bytes config;
    std::string entry;
    int excess = 0;
};

std::string esds(const std::string &sizes_and_type, const std::string &config)
{
    return "'esds' 00000000 03" + sizes_and_type.substr(0, 2) + "{id} 00 04" +
           sizes_and_type.substr(2) + "000000 00000000 00000000" + config + "060102";
}

const std::string kDamr = " 00000011 'damr' 'ukwn' 00 81FF 00 01";
const std::string kDqcp = " 0000000E 'dqcp' 'ukwn' 00 01";
const std::string kD263 = " 0000000F 'd263' 'ukwn' 00 0A 00";
const std::string kGlbl = " 0000000B 'glbl' 010203";
const std::string kAvcC = "'avc1' 00000021 'avcC' 01 42C01E FF E1 000A 6742C01EDA0507E84010"
                          " 01 0004 68CE3C80";
const std::string kEmptyAvcC = "'avc1' 00000008 'avcC'";
const Bytes kRecord = bytes("01 42C01E FF E1 000A 6742C01EDA0507E84010 01 0004 68CE3C80");
const Bytes kThree = bytes("010203");

const std::vector<stream> kAudioStreams = {
    {0xAAC0, kAudioConfig, "'mp4a' 00000027" + esds("1911 40 15", "05 02 1190")},
    {0x0001, {}, "'NONE'"},
    {0x0001, kThree, "'NONE'" + kGlbl},
    {0x0055, {}, "'mp4a' 00000023" + esds("150D 6B 15", "")},
    {0x0056, {}, "'sawp'" + kDamr},
    {0x0057, {}, "'samr'" + kDamr},
    {0x0058, kThree, "'sawb'" + kDamr},
    {0x00FF, kThree, "'mp4a' 00000028" + esds("1A12 40 15", "05 03 010203")},
    {0x2000, kThree, "'mp4a' 00000028" + esds("1A12 D3 15", "05 03 010203")},
    {0x2001, {}, "'mp4a' 00000023" + esds("150D D4 15", "")},
    {0x706D, kThree, "'mp4a' 00000028" + esds("1A12 40 15", "05 03 010203")},
    {0xCC00, kThree, "'sqcp'" + kDqcp},
    {0xCC00, bytes("'QLCM' 00"), "'mp4a' 0000002A" + esds("1C14 E1 15", "05 05 'QLCM' 00")},
    {0xCC00, bytes("'EVRC' 00"), "'sqcp'" + kDqcp},
    {0xCD00, bytes("'QLCM' 00"), "'mp4a' 0000002A" + esds("1C14 A0 15", "05 05 'QLCM' 00")},
    {0xCD00, kThree, "'sevc'" + kGlbl},
    {0xCD01, bytes("'EVRC' 00"), "'mp4a' 0000002A" + esds("1C14 A0 15", "05 05 'EVRC' 00")},
    {0xCD01, bytes("'EVRC'"), "'secb' 0000000C 'glbl' 'EVRC'"},
    {0xCD02, {}, "'secw'"},
    {0xCD10, kThree, "'svmr'" + kGlbl},
    {0xCD20, {}, "'ssmv'", 14},
    {0xCD20, kThree, "'ssmv'" + kGlbl, 3},
    {0xCD20, bytes("'QLCM' 00"), "'mp4a' 0000002A" + esds("1C14 A1 15", "05 05 'QLCM' 00")},
    {0x1234, {}, "'mp4a' 00000023" + esds("150D 40 15", "")},
    {0xAAC0, Bytes(200, 0x5A),
     "'mp4a' 000000F0 'esds' 00000000 03 8161 {id} 00 04 8158 40 15 000000 00000000 00000000"
     " 05 8148" +
         hex(Bytes(200, 0x5A)) + "060102"},
};

const std::vector<stream> kVideoStreams = {
    {code("H264"), join_nal_units({kSps, kPps}), kAvcC, -3},
    {code("avc1"), kRecord, kAvcC},
    {code("avc1"), {}, kAvcC}, // from the first frame
    {code("AVC1"), bytes("01 42C01E FF E1"), kEmptyAvcC, 6},
    {code("S263"), {}, "'s263'" + kD263},
    {code("h263"), kThree, "'h263'" + kD263},
    {code("mp4v"), {}, "'mp4v' 00000023" + esds("150D 20 11", "")},
    {code("mp4v"), kThree, "'mp4v' 00000028" + esds("1A12 20 11", "05 03 010203")},
    {code("XvX1"), {}, "'xvx1'"},
    {code("xvx1"), kThree, "'xvx1'" + kGlbl},
};

struct setup {
    const stream *audio; // null: no such track
    const stream *video;
    uint32_t with_frames; // MUX_STREAM_… of the tracks that get frames
    uint32_t keys;        // bits of the pictures that are key frames
    int32_t close_memory;
    cache_layout layout;
    bool with_64bit, append;
    bool has_boxes; // the caller's, in a file that the caller opened
};

// The frames of every recording: the first picture has parameter sets.
const struct {
    uint32_t type; // also the flag of its track
    uint32_t time_ms;
    Bytes data;
} kFrames[] = {
    {MUX_TYPE_VIDEO, 0, bytes("0000000A 6742C01EDA0507E84010 00000004 68CE3C80 00000001 65")},
    {MUX_TYPE_AUDIO, 2, bytes("'sound 1'")},
    {MUX_TYPE_AUDIO, 23, bytes("'sound 2'")},
    {MUX_TYPE_VIDEO, 40, bytes("'picture'")},
    {MUX_TYPE_AUDIO, 45, bytes("'the third sound'")},
    {MUX_TYPE_VIDEO, 80, bytes("'picture'")},
    {MUX_TYPE_VIDEO, 113, bytes("'the last picture'")},
};

Bytes box(const std::string &type, const Bytes &content)
{
    return number(8 + content.size()) + bytes("'" + type + "'") + content;
}

Bytes expected_head(const setup &s, uint64_t media_bytes)
{
    const Bytes begin = s.has_boxes
                            ? bytes("000000" // the bytes in the handle's file before the open
                                    "00000016 'ftyp' 'mp42' 00000007 'isom' 'av'"
                                    "0000000D 'usr1' 0102030405 00000008 'us' 0102")
                            : bytes("00000014 'ftyp' '3g2a' 00000200 '3g2a'");
    return begin + bytes("00000008 'free'") + number(media_bytes) + bytes("'mdat'");
}

// The sample tables of one track's frames.
struct tables {
    uint32_t count = 0, last_ms = 0;
    Bytes offsets, sizes, syncs;
};

tables read_frames(const setup &s, uint32_t type)
{
    tables t;
    uint64_t offset = expected_head(s, 0).size();
    for (const auto &frame : kFrames) {
        if ((s.with_frames & frame.type) == 0) {
            continue;
        }
        if (frame.type == type) {
            t.syncs = t.syncs + ((s.keys >> t.count & 1) != 0 ? number(t.count + 1) : Bytes{});
            t.offsets = t.offsets + number(offset, s.with_64bit ? 8 : 4);
            t.sizes = t.sizes + number(frame.data.size());
            t.last_ms = frame.time_ms;
            t.count++;
        }
        offset += frame.data.size();
    }
    return t;
}

bool has_stss(const tables &t)
{
    return !t.syncs.empty() && t.syncs.size() / 4 < t.count;
}

Bytes expected_stbl(const setup &s, bool is_video, const tables &t, const std::string &id)
{
    const Bytes start = bytes(is_video ? "000000000000 0001 0000 0000 00000000 00000000 00000000"
                                         "0140 00F0 00480000 00480000 00000000 0001" +
                                             std::string(64, '0') + "0018 FFFF"
                                       : "000000000000 0001 0000 0000 00000000 0002 0010 0000 0000"
                                         "BB80 0000");
    const stream &of = is_video ? *s.video : *s.audio;
    std::string entry =
        of.entry == kAvcC && of.config.empty() && t.count == 0 ? kEmptyAvcC : of.entry;
    if (const size_t at = entry.find("{id}"); at != std::string::npos) {
        entry.replace(at, 4, id);
    }
    const Bytes stsd = box(entry.substr(1, 4), start + bytes(entry.substr(6)));
    // A table that is appended as a file takes its four spare bytes with it.
    const bool has_spare = s.append && s.layout == cache_layout::tiny;
    const Bytes stss =
        box("stss", number(0) + number(t.syncs.size() / 4) + t.syncs + Bytes(has_spare ? 4 : 0));
    const std::string runs = !is_video ? "00000001 00000003 000002D0"
                                       : "00000003 00000002 00000E10 00000001 00000B9A"
                                         "00000001 00000000";
    return box("stbl",
               box("stsd", bytes("00000000 00000001") + stsd) +
                   box("stsc", bytes("00000000 00000001 00000001 00000001 00000001")) +
                   box(s.with_64bit ? "co64" : "stco", number(0) + number(t.count) + t.offsets) +
                   box("stsz", number(0, 8) + number(t.count) + t.sizes) +
                   (is_video && has_stss(t) ? stss : Bytes{}) +
                   box("stts", number(0) + bytes(t.count != 0 ? runs
                                                              : "00000001 00000001"
                                                                "00000000")));
}

const char kMatrix[] = "00010000 00000000 00000000 00000000 00010000 00000000"
                       "00000000 00000000 40000000";

// The identifier of a track with frames is its index; without frames it is the caller's.
uint32_t track_id(const setup &s, bool is_video, const tables &t)
{
    return t.count == 0 ? (is_video ? 77u : 78u) : is_video && s.audio != nullptr ? 2u : 1u;
}

Bytes expected_trak(const setup &s, bool is_video)
{
    const tables t = read_frames(s, is_video ? MUX_TYPE_VIDEO : MUX_TYPE_AUDIO);
    const uint32_t id = track_id(s, is_video, t);
    const Bytes time = bytes(t.count != 0 ? "C6EFD7CE C6EFD7CE" : "00000000 00000000");
    const Bytes tkhd =
        bytes("0000000F") + time + number(id) + number(0) + number(t.last_ms * 90) +
        bytes(std::string("0000000000000000 0000 0000") + (is_video ? "0000 0000" : "0100 0000") +
              kMatrix + (is_video ? "01400000 00F00000" : "00000000 00000000"));
    const Bytes mdhd = bytes("0000000F") + time + number(is_video ? 90000 : 48000) +
                       number(t.last_ms * (is_video ? 90 : 48)) +
                       bytes(is_video ? "0000 0000" : "15C7 0000");
    const Bytes hdlr = bytes(std::string("00000000 00000000") + (is_video ? "'vide'" : "'soun'") +
                             "00000000 00000000 00000000 00");
    const Bytes header = is_video ? box("vmhd", bytes("00000001 0000000000000000"))
                                  : box("smhd", bytes("00000000 0000 0000"));
    const Bytes dinf =
        box("dinf", box("dref", bytes("00000000 00000001 0000000C 'url ' 00000001")));
    const Bytes stbl = expected_stbl(s, is_video, t, hex(number(id, 2)));
    return box("trak", box("tkhd", tkhd) + box("mdia", box("mdhd", mdhd) + box("hdlr", hdlr) +
                                                           box("minf", header + dinf + stbl)));
}

Bytes expected_moov(const setup &s)
{
    const tables audio = read_frames(s, MUX_TYPE_AUDIO);
    const tables video = read_frames(s, MUX_TYPE_VIDEO);
    const uint32_t last_id = video.count != 0 && s.audio != nullptr ? 2 : 1;
    const Bytes mvhd =
        bytes("00000000 C6EFD7CE C6EFD7CE 00015F90") +
        number(std::max(audio.last_ms, video.last_ms) * 90) +
        bytes(std::string("00010000 0100 0000 0000000000000000") + kMatrix + std::string(48, '0')) +
        number(last_id + 1);
    const Bytes udta =
        bytes("00000050 'cprt' 00000000 15C7"
              "'Recorded from a terrestrial digital multimedia broadcast service.' 00"
              "00000033 'name' 00000000 00 'UNKNOWN - QVR_MP4_MUX 1.00 - 20261124' 00");
    return box("moov",
               box("mvhd", mvhd) + (s.audio != nullptr ? expected_trak(s, false) : Bytes{}) +
                   (s.video != nullptr ? expected_trak(s, true) : Bytes{}) + box("udta", udta));
}

Bytes expected_file(const setup &s)
{
    Bytes media;
    for (const auto &frame : kFrames) {
        if ((s.with_frames & frame.type) != 0) {
            media = media + frame.data;
        }
    }
    return media.empty() ? expected_head(s, 0)
                         : expected_head(s, 8 + media.size()) + media + expected_moov(s);
}

// The estimate includes a sync table, which tracks without key frames, or with key frames only, do
// not have, and is only approximate for codec-specific boxes.
int64_t expected_excess(const setup &s)
{
    int64_t excess = s.audio != nullptr ? s.audio->excess : 0;
    if (s.video != nullptr) {
        const tables t = read_frames(s, MUX_TYPE_VIDEO);
        const int64_t spare = s.append && s.layout == cache_layout::tiny ? 4 : 0;
        excess += s.video->excess;
        excess += has_stss(t) ? -spare : 16 + static_cast<int64_t>(t.syncs.size());
    }
    return excess;
}

class Setups : public MuxTest {
  protected:
    static void check(const setup &s, const Bytes &expected)
    {
        const uint8_t data[] = {1, 2, 3, 4, 5};
        const mp4_mux_userbox_t boxes[] = {
            {code("usr1"), data, 5}, {code("usr2"), nullptr, 0}, {0x7375, data, 2}};
        const uint32_t codes[] = {code("isom"), 0x7661};
        const mp4_mux_ftyp_t ftyp = {{'m', 'p', '4', '2'}, 7, codes, 2};
        reset_world();
        recording r(s.with_64bit, (s.video != nullptr ? 1u : 0u) | (s.audio != nullptr ? 2u : 0u));
        r.set_cache(s.layout);
        r.lend_close_memory(s.close_memory);
        r.init.m_pfnAppendFile = s.append ? append_whole_file : nullptr;
        if (s.audio != nullptr) {
            r.input.m_iAudioCodec = static_cast<int32_t>(s.audio->code);
            r.audio_private = s.audio->config;
        }
        if (s.video != nullptr) {
            r.input.m_uiVideoFourCC = s.video->code;
            r.video_private = s.video->config;
        }
        if (s.has_boxes) {
            r.input.m_pstFtyp = &ftyp;
            r.input.m_pstUserBox = boxes;
            r.input.m_uiUserBoxCount = 3;
            r.init.m_uiOptions = MUX_OPTION_OUTPUT_IS_HANDLE;
            r.init.m_pOutput = open_file("out.mp4");
            static_cast<memory_file *>(r.init.m_pOutput)->position = 3;
        }
        std::copy_n("eng", 3, r.input.m_szAudioLanguage);
        ASSERT_EQ(r.open(), 0) << r.message();
        uint32_t pictures = 0;
        for (const auto &frame : kFrames) {
            const bool is_key = frame.type == MUX_TYPE_VIDEO && (s.keys >> pictures++ & 1) != 0;
            if ((s.with_frames & frame.type) != 0) {
                ASSERT_EQ(
                    r.put(static_cast<int32_t>(frame.type), frame.data, frame.time_ms, is_key), 0)
                    << r.message();
            }
        }
        ASSERT_EQ(r.close(), 0) << r.message();
        const Bytes &file = world.files["out.mp4"].bytes;
        if (file != expected) {
            FAIL() << hex(file) << "\nis not\n" << hex(expected);
        }
        if (s.with_frames != 0) {
            EXPECT_EQ(r.estimate - static_cast<int64_t>(file.size()), expected_excess(s));
        }
        ASSERT_EQ(leftovers(), "");
    }
};

TEST_F(Setups, MakeFilesExactToTheByteInAnyMemory)
{
    using enum cache_layout;
    constexpr uint32_t kFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO;
    Bytes expected;
    for (size_t n = 0, left = 0; left == 0; n++) {
        left = n;
        const auto next = [&](auto... choices) {
            const std::array all = {choices...};
            const size_t at = left % all.size();
            left /= all.size();
            return all[at];
        };
        setup s = {.close_memory = next(0, 20, 48, 1024003),
                   .layout = next(own, recorder, pooled, tiny),
                   .with_64bit = next(false, true),
                   .append = next(false, true),
                   .has_boxes = next(false, true)};
        const uint32_t flags = next(1u, 2u, 3u);
        s.with_frames = flags & next(kFlags, 1u, 2u);
        const size_t streams = left % kAudioStreams.size();
        left /= kAudioStreams.size();
        s.keys = std::array{5u, 0u, 15u}[streams % 3];
        s.audio = (flags & MUX_STREAM_AUDIO) != 0 ? &kAudioStreams[streams] : nullptr;
        const size_t pictures =
            (streams + n / 4) % kVideoStreams.size(); // each with each audio stream
        s.video = (flags & MUX_STREAM_VIDEO) != 0 ? &kVideoStreams[pictures] : nullptr;
        SCOPED_TRACE(testing::Message() << "set-up " << n);
        if (n % 4 == 0) { // the same with any close memory
            expected = expected_file(s);
        }
        check(s, expected);
        if (HasFatalFailure()) {
            return;
        }
    }
}

} // namespace

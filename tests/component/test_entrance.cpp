// Buffers sent through the ports, and the content of the file: its parameter sets, its pictures
// with their times and sync flags, its audio.
#include "component/audio_encoder.h"
#include "mp4read/mp4_reader.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

// A buffer is written as its time (ms) and one letter per unit: "40SPI 80N". A capital and its
// small letter are units with the same id. "." makes the next start code a short one, "!" omits it,
// "_" is a zero byte. "L" is the row's own unit, "A" a buffer with the PCM of one frame, "a" a 64th
// of it.
struct Row {
    std::string name;
    std::string sent;
    std::string sets;        // of the decoder configuration; empty: no file
    std::string pictures;    // "*": a sync sample
    size_t audio_frames = 1; // at least the frame of silence
    Bytes own = {};
};

// A unit of `bytes` bytes. A parameter set has the id 0 (coded as 0x80) or 1 (0x40).
static Bytes unit(int type, size_t bytes, uint8_t mark, uint8_t coded_id = 0x80)
{
    Bytes data(bytes, mark);
    data[0] = static_cast<uint8_t>(0x60 | type);
    const size_t id_at = type == 7 ? 4 : 1;
    if (type >= 7 && id_at < bytes) {
        data[id_at] = coded_id;
    }
    return data;
}

static const std::map<char, Bytes> kUnits = {
    {'S', unit(7, 10, 9)},       {'s', unit(7, 12, 8)},     {'P', unit(8, 4, 9)},
    {'p', unit(8, 5, 8)},        {'I', unit(5, 30, 9)},     {'i', unit(5, 31, 9)},
    {'N', unit(1, 20, 9)},       {'E', unit(6, 9, 9)},      {'X', unit(7, 3, 9)},
    {'T', unit(7, 11, 7, 0x40)}, {'Q', unit(8, 6, 7, 0x40)}};

// clang-format off
static const std::vector<Row> kRows = {
    // Both sets before the picture.
    {"no IDR picture",                "40SPN 80SPI",                      "SP", "0N 40I*"},
    {"an IDR slice after an SEI",     "40SPEI",                           "SP", "0EI*"},
    {"at time 0: the next sets",      "0SPI 40i 80SPI",                   "SP", "0I*"},
    {"at time 0: a PPS follows",      "0SPI 40PN 80SPI",                  "SP", "0N 40I*"},
    {"at time 0: other sets follow",  "0SPI 40spi 80PSI 120Pi",           "SP", "0i* 40I* 80i*"},
    {"later sets are left out",       "40SPI 80spi 120sp 160N",           "SP", "0I* 40i* 120N"},
    {"several before the picture",    "40SPQI",                           "SP", "0SPQI*"},
    {"short start codes first",       "40.SPI",                           "SP", "0SPI*"},
    {"a short one after the sets",    "40SP.I",                           "SP", "0SPI*"},
    {"a short one between slices",    "40SPI.N",                          "SP", "0IN*"},
    {"an SPS too short",              "40XPI",                            "",   ""},
    {"no sets",                       "40I 80A 80N",                      "",   ""},
    {"a PPS alone",                   "40PI",                             "",   ""},
    {"no start code",                 "40!SPI",                           "",   ""},
    {"leading zeros",                 "40_SPI 80__SPI 120___SPI 160" + std::string(70, '_') + ".I",
                                                                  "SP", "0I* 40I* 80I* 120I*"},
    // Sets without their picture.
    {"PPS first",                     "40P 80S 120I 160N",                "SP", "0I* 40N"},
    {"PPS with the picture",          "40S 80PI",                         "SP", "0I*"},
    {"short start codes, zeros",      "40.S___ 40.P_ 40.E.I__",           "SP", "0EI*"},
    {"the newest of each id",         "40s 40p 80S 80P 80X 120I",         "SP", "0I*"},
    {"the picture brings newer ones", "40s 40pQ 80SPI",                   "SP", "0I*"},
    {"several ids stay in",           "40Q 40S 40T 40P 80I 120Q 160E 160N 200Q 240SPI",
                                                "SQ", "0TSQPI* 80E 80QN 160SQPI*"},
    {"both alone, others later",      "40sp 80SPI 200N",                  "sp", "0SPI* 120N"},
    {"audio after both alone",        "40SP 40A 80A 160I 300N",           "SP", "0I* 120N", 2},
    {"passed before both are there",  "40S 80N 120S 120P 160N 200I",      "SP", "0N 40I*"},
    {"at time 0: the next picture",   "0S 0P 0i 40N 80I",                 "SP", "0N 40I*"},
    {"any picture begins, no SEI",    "40SP 80E 80N 120A 160I 200A",      "SP", "0N 80I*", 2},
    {"later sets apart are left out", "40S 40P 80N 120P 120N 160S 160P 160N 200I",
                                                              "SP", "0N 40N 80N 120I*"},
    {"a clock that jumps back",       "4000S 3000P 2000I 2040N",          "SP", "0I* 40N"},
    {"right after the time base",     "-20SPI 20SPI",                     "SP", "0I*"},
    {"never both",                    "40S 80I 120S 160N",                "",   ""},
    {"no picture",                    "40S 80P",                          "",   ""},
    // Audio.
    {"audio before the picture",      "100A 120N 130A 140SPI 139A 140A 161A","SP", "0I*", 2},
    {"clocks that jump back",         "40SPI 40A 80I 80A 30I 50A 70I 90A",
                                                            "SP", "0I* 40I* 80I* 120I*", 4},
};
// clang-format on

static std::vector<Row> rows_of_sizes()
{
    std::vector<Row> rows;
    for (const size_t bytes : {2u, 49u, 255u, 256u, 70000u}) { // here the scan ends
        rows.push_back({"before the sets " + std::to_string(bytes), "40LSPI 80SPI 120LsI", "SP",
                        "0I* 40LsI*", 1, unit(6, bytes, 9)});
    }
    rows.push_back({"more buffers than the ring holds", "40SPI", "SP", "0I*", 2});
    for (size_t i = 0; i < 2 * 64 + 63; i++) {
        rows.back().sent += " 40a";
    }
    std::vector<size_t> sizes = {255, 256, 257, 4096, 4097};
    for (size_t bytes = 40; bytes <= 56; bytes++) {
        sizes.push_back(bytes);
    }
    // The scan reads 50 bytes, with the header after the sets. Larger sets stay in the access
    // units. At most 4096 bytes of sets are kept.
    for (const size_t bytes : sizes) {
        const Bytes sps = unit(7, bytes - 8 - 4, 9);
        const std::string name = "size of sets " + std::to_string(bytes);
        const std::string sets = bytes <= 4096 ? "LP" : "";
        const std::string in_file = bytes <= 4096 ? "0LPI*" : "";
        const std::string pictures = bytes <= 45 ? "0I*" : in_file;
        rows.push_back({name, "40LPI", "LP", bytes <= 45 ? "0I*" : "0LPI*", 1, sps});
        rows.push_back({name + " apart", "40L 40P 40I", sets, pictures, 1, sps});
        rows.push_back({name + " alone", "40LP 80I", sets, bytes <= 50 ? "0I*" : in_file, 1, sps});
    }
    return rows;
}

static std::vector<Row> all_rows()
{
    std::vector<Row> rows = rows_of_sizes();
    rows.insert(rows.end(), kRows.begin(), kRows.end());
    return rows;
}

static bool is_audio(const std::string &text)
{
    return text == "A" || text == "a";
}

static Bytes buffer_of(const std::string &text, const Bytes &own)
{
    if (is_audio(text)) {
        return Bytes(text == "A" ? kPcmBufferBytes : kPcmBufferBytes / 64, 5);
    }
    Bytes data;
    ptrdiff_t left_out = 0; // of the next start code
    for (const char c : text) {
        if (c == '_') {
            data.push_back(0);
        } else if (c == '.' || c == '!') {
            left_out = c == '.' ? 1 : 4;
        } else {
            const Bytes joined = join_nal_units({c == 'L' ? own : kUnits.at(c)});
            data.insert(data.end(), joined.begin() + left_out, joined.end());
            left_out = 0;
        }
    }
    return data;
}

static std::string letter_of(const Bytes &data, const Bytes &own)
{
    for (const auto &[letter, known] : kUnits) {
        if (data == known) {
            return {letter};
        }
    }
    return data == own ? "L" : "?";
}

static std::string pictures_of(const Bytes &image, const mp4_reader::track &track, const Bytes &own)
{
    std::string text;
    for (const mp4_reader::sample &sample : track.samples) {
        text += text.empty() ? "" : " ";
        text += std::to_string(sample.time / 90);
        const uint8_t *data = image.data() + sample.offset;
        const uint8_t *const end = data + sample.size;
        while (end - data > 4) {
            size_t bytes = 0;
            for (int i = 0; i < 4; i++) {
                bytes = bytes << 8 | data[i];
            }
            const uint8_t *const next =
                data + 4 + std::min(bytes, static_cast<size_t>(end - data) - 4);
            text += letter_of(Bytes(data + 4, next), own);
            data = next;
        }
        text += sample.sync ? "*" : "";
    }
    return text;
}

class Entrance : public ComponentTest {
  protected:
    // Records what the row sends. returns the file, empty without one.
    static Bytes record(IlClient &client, const Row &row)
    {
        std::filesystem::remove(kRecording);
        EXPECT_EQ(client.start(), OMX_ErrorNone);
        client.send(1, Bytes(kPcmBufferBytes, 7), 9000000);  // before any video: dropped
        client.send(0, Bytes{0, 0, 0, 1, 9, 0xF0}, 1000000); // the time base
        std::istringstream sent(row.sent);
        int64_t ms = 0;
        for (std::string text; sent >> ms >> text;) {
            client.send(is_audio(text) ? 1 : 0, buffer_of(text, row.own), 1000000 + 1000 * ms);
        }
        EXPECT_EQ(client.stop(), OMX_ErrorNone);
        EXPECT_EQ(client.wait_for_end(), row.sets.empty() ? 0u : 1u) << row.name;
        return std::filesystem::exists(kRecording) ? read_file(kRecording) : Bytes{};
    }
    static std::unique_ptr<IlClient> make_ready()
    {
        std::unique_ptr<IlClient> client = make_client();
        client->to_executing();
        EXPECT_EQ(client->set_path(kRecording), OMX_ErrorNone);
        return client;
    }
};

static void expect_file(const Bytes &image, const Row &row)
{
    SCOPED_TRACE(row.name);
    ASSERT_EQ(image.empty(), row.sets.empty());
    if (image.empty()) {
        return;
    }
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    ASSERT_EQ(first_fault(movie), "");
    const mp4_reader::track &video = *mp4_reader::find_track(movie, "vide");
    std::string sets;
    for (const std::vector<Bytes> &kind : {video.avc.sps, video.avc.pps}) {
        for (const Bytes &set : kind) {
            sets += letter_of(set, row.own);
        }
    }
    EXPECT_EQ(sets, row.sets);
    EXPECT_EQ(pictures_of(image, video, row.own), row.pictures);
    EXPECT_EQ(mp4_reader::find_track(movie, "soun")->samples.size(), row.audio_frames);
}

TEST_F(Entrance, GivesTheFileOfTheTable)
{
    const auto client = make_ready();
    for (const Row &row : all_rows()) {
        expect_file(record(*client, row), row);
    }
    client->to_loaded();
}

// Each row is recorded before and after a third of the others, and must give the file that a new
// component gives. One size of large sets is enough.
TEST_F(Entrance, KeepsNothingForTheNextRecording)
{
    host_set_log_level(8);
    std::vector<Row> rows = all_rows();
    std::erase_if(rows, [](const Row &row) {
        return row.name.find("size of sets") == 0 && row.name.find("46") == std::string::npos;
    });
    std::vector<Bytes> files;
    for (const Row &row : rows) {
        files.push_back(record(*make_ready(), row));
    }
    const auto client = make_ready();
    for (size_t a = 0; a < rows.size() && !HasFailure(); a++) {
        for (size_t b = a; b < rows.size(); b += 3) { // b after a, and the next time a after b
            EXPECT_EQ(record(*client, rows[a]), files[a]) << rows[a].name << ", " << rows[b].name;
            EXPECT_EQ(record(*client, rows[b]), files[b]) << rows[b].name << ", " << rows[a].name;
        }
    }
    client->to_loaded();
}

static constexpr uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                      22050, 16000, 12000, 11025, 8000,  7350};

TEST_F(Entrance, DescribesTheAudioOfEveryRate)
{
    for (uint32_t rate = 0; rate <= 100000; rate++) {
        const uint32_t index =
            static_cast<uint32_t>(std::find(kRates, std::end(kRates), rate) - kRates);
        for (uint32_t channels = 1; channels <= 2; channels++) {
            uint8_t config[2] = {0xEE, 0xEE};
            uint32_t length = 0;
            const bool is_known = getAACEncDSI(rate, channels, config, &length) == 0;
            ASSERT_EQ(is_known, index < std::size(kRates)) << rate;
            ASSERT_EQ(length, is_known ? 2u : 0u) << rate;
            ASSERT_EQ(config[0] << 8 | config[1],
                      is_known ? 2u << 11 | index << 7 | channels << 3 : 0xEEEEu)
                << rate;
        }
    }
    const auto client = make_ready();
    for (uint32_t index = 3; index <= 11; index++) { // those of the encoder
        OMX_AUDIO_PARAM_PCMMODETYPE pcm = {};
        pcm.nSamplingRate = kRates[index];
        EXPECT_EQ(OMX_SetParameter(client->handle(), OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
        const Bytes image = record(*client, {"", "40SPI 40A 200A", "SP", ""});
        const mp4_reader::movie movie = mp4_reader::read_movie(image);
        ASSERT_EQ(first_fault(movie), "");
        const mp4_reader::track &audio = *mp4_reader::find_track(movie, "soun");
        EXPECT_EQ(audio.sample_rate, kRates[index]);
        EXPECT_EQ(audio.samples.size(), 2u) << kRates[index];
        const uint32_t config = 2u << 11 | index << 7 | 2u << 3;
        EXPECT_EQ(audio.esds.specific_info,
                  (Bytes{static_cast<uint8_t>(config >> 8), static_cast<uint8_t>(config)}));
    }
    client->to_loaded();
}

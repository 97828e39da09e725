// The bytes of a journal, both ways.
#include "journal/journal.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint64_t kSession = 0x0102030405060708;

journal_settings_t make_settings()
{
    journal_settings_t settings = {.session = kSession, .stream_flags = 3, .options = 1};
    settings.input = {.m_iYear = 2009, .m_iMonth = 9, .m_iDay = 5, .m_iWeekDay = 1, .m_iHour = 17};
    settings.input.m_iMinute = 5;
    settings.input.m_iSecond = 18;
    settings.input.m_uiVideoTrackID = 7;
    settings.input.m_iVideoWidth = 320;
    settings.input.m_iVideoHeight = 240;
    settings.input.m_iVideoFrameRate = 30000;
    memcpy(&settings.input.m_uiVideoFourCC, "avc1", 4);
    settings.input.m_uiAudioTrackID = 8;
    settings.input.m_iAudioSampleRate = 48000;
    settings.input.m_iAudioBitsPerSample = 16;
    settings.input.m_iAudioChannels = 2;
    settings.input.m_iAudioCodec = MUX_AUDIO_AAC;
    memcpy(settings.input.m_szAudioLanguage, "kor", 3);
    settings.video_configuration_bytes = 50;
    memset(settings.video_configuration, 0x5A, 50);
    settings.audio_configuration_bytes = 2;
    memcpy(settings.audio_configuration, "\x11\x90", 2);
    strcpy(settings.path, "/mnt/sdcard/recording.mp4");
    return settings;
}

Bytes make_head()
{
    const journal_settings_t settings = make_settings();
    Bytes head(kJournalHeadBytes);
    head.resize(journal_write_head(&settings, head.data()));
    return head;
}

struct Frame {
    journal_frame_t record;
    Bytes data;
};

Bytes make_group(const std::vector<Frame> &frames, uint64_t media_begin)
{
    journal_group_t group;
    journal_begin_group(&group, kSession, media_begin);
    for (const Frame &frame : frames) {
        EXPECT_TRUE(journal_add_frame(&group, &frame.record, frame.data.data()));
    }
    const uint32_t bytes = journal_end_group(&group);
    return Bytes(group.bytes, group.bytes + bytes);
}

Bytes word(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

// The checksum, from its description.
uint32_t plain_sum(const std::vector<Bytes> &parts)
{
    uint32_t first = kSession & 0xFFFFFFFF, second = kSession >> 32;
    for (const Bytes &part : parts) {
        for (size_t at = 0; at < part.size(); at += 4) {
            for (size_t i = 0; i < 4 && at + i < part.size(); i++) {
                first += uint32_t{part[at + i]} << (8 * i);
            }
            second += first;
        }
    }
    return first ^ (second << 16 | second >> 16);
}

} // namespace

TEST(Journal, ReturnsEverySettingOfItsHead)
{
    const Bytes head = make_head();
    const journal_settings_t expected = make_settings();
    journal_settings_t read;
    uint32_t head_bytes = 0;
    uint16_t version = 0;
    ASSERT_EQ(journal_read_head(head.data(), head.size(), &read, &head_bytes, &version),
              kJournalRead);
    EXPECT_EQ(head_bytes, head.size());
    EXPECT_EQ(memcmp(&read, &expected, sizeof(read)), 0);
    EXPECT_LE(head.size(), kJournalHeadBytes);

    journal_settings_t longest = expected;
    longest.video_configuration_bytes = longest.audio_configuration_bytes =
        kJournalConfigurationBytes;
    memset(longest.path, 'p', sizeof(longest.path));
    Bytes room(kJournalHeadBytes + 1, 0xEE);
    EXPECT_LE(journal_write_head(&longest, room.data()), kJournalHeadBytes);
    EXPECT_EQ(room.back(), 0xEE);
}

TEST(Journal, RefusesEveryOtherHead)
{
    const Bytes head = make_head();
    journal_settings_t settings;
    uint32_t head_bytes = 0;
    uint16_t version = 0;
    for (size_t cut = 0; cut < head.size(); cut++) {
        EXPECT_EQ(journal_read_head(head.data(), cut, &settings, &head_bytes, &version),
                  kJournalEnded);
    }
    for (size_t at = 0; at < head.size(); at++) {
        Bytes broken = head;
        broken[at] ^= 0x10;
        const journal_result_t result =
            journal_read_head(broken.data(), broken.size(), &settings, &head_bytes, &version);
        const bool is_version = at == 4 || at == 5;
        EXPECT_EQ(result == kJournalOtherVersion, is_version) << at;
        EXPECT_NE(result, kJournalRead) << at;
    }
}

TEST(Journal, WritesAGroupByteForByte)
{
    const Bytes picture(300, 0xAB), sound = {0x21, 1, 2, 3, 4};
    const std::vector<Frame> frames = {{{MUX_TYPE_VIDEO, 300, 0, MUX_FRAME_KEY}, picture},
                                       {{MUX_TYPE_AUDIO, 5, 21, MUX_FRAME_KEY}, sound},
                                       {{MUX_TYPE_VIDEO, 300, 33, 0}, picture},
                                       {{MUX_TYPE_VIDEO, 300, 66, 0}, picture},
                                       {{MUX_TYPE_VIDEO, 300, 100, 0}, picture}};
    Bytes expected = {'J', 'G', 'R', 'P', 0, 0, 0, 43, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0, 36};
    const Bytes media_sum = word(plain_sum({picture, sound, picture, picture, picture}));
    expected.insert(expected.end(), media_sum.begin(), media_sum.end());
    const Bytes records = {0xB2, 0x09, 0,  // 300 << 2 | 2, time 0
                           23,   42,       // 5 << 2 | 3, time 21
                           0xB0, 0x09, 66, // time 33: the step was 0
                           0xB0, 0x09, 66, // time 66: nothing had come before a time of 0
                           0xB0, 0x09, 2}; // time 100: 1 more than the step
    expected.insert(expected.end(), records.begin(), records.end());
    expected[7] = static_cast<uint8_t>(expected.size() + 4);
    const Bytes sum = word(plain_sum({expected}));
    expected.insert(expected.end(), sum.begin(), sum.end());
    EXPECT_EQ(make_group(frames, 0x100000024), expected);
}

TEST(Journal, ReturnsEveryFrameOfAGroupAndRefusesEveryOther)
{
    std::mt19937 engine(1);
    const auto random = [&engine] { return static_cast<uint32_t>(engine()); };
    std::vector<Frame> frames;
    for (uint32_t i = 0; i < 200; i++) {
        const uint32_t time_ms = i % 10 == 0 ? random() : i * 20 + random() % 3;
        const uint32_t bytes = i % 7 == 0 ? 0 : random() % 40000;
        frames.push_back({{random() % 2 == 0 ? MUX_TYPE_VIDEO : MUX_TYPE_AUDIO, bytes, time_ms,
                           random() % 2 == 0 ? uint32_t{MUX_FRAME_KEY} : 0u},
                          Bytes(bytes, static_cast<uint8_t>(i))});
    }
    const Bytes group = make_group(frames, 36);
    journal_group_reader_t reader;
    ASSERT_EQ(journal_open_group(&reader, group.data(), group.size(), kSession), kJournalRead);
    EXPECT_EQ(reader.group_bytes, group.size());
    EXPECT_EQ(reader.media_begin, 36u);
    journal_frame_t frame;
    for (const Frame &expected : frames) {
        ASSERT_TRUE(journal_next_frame(&reader, &frame));
        EXPECT_EQ(memcmp(&frame, &expected.record, sizeof(frame)), 0);
    }
    EXPECT_FALSE(journal_next_frame(&reader, &frame));

    EXPECT_EQ(journal_open_group(&reader, group.data(), group.size(), kSession + 1),
              kJournalDamaged);
    for (size_t at = 0; at < group.size(); at++) {
        EXPECT_EQ(journal_open_group(&reader, group.data(), at, kSession), kJournalEnded);
        Bytes broken = group;
        broken[at] ^= 0x80;
        EXPECT_NE(journal_open_group(&reader, broken.data(), broken.size(), kSession),
                  kJournalRead);
    }
}

// With a checksum that fits: only the records themselves are wrong.
TEST(Journal, RefusesRecordsThatDoNotFillTheGroup)
{
    const auto seal = [](Bytes group) {
        group[7] = static_cast<uint8_t>(group.size() + 4);
        const Bytes sum = word(plain_sum({group}));
        group.insert(group.end(), sum.begin(), sum.end());
        return group;
    };
    const Bytes empty = make_group({}, 36);
    const struct {
        uint8_t frames;
        Bytes records;
        journal_result_t result;
    } cases[] = {
        {0, {}, kJournalRead},
        {1, {4, 0}, kJournalRead},
        {1, {}, kJournalDamaged},
        {2, {4, 0}, kJournalDamaged},
        {0, {4, 0}, kJournalDamaged},
        {1, {4, 0, 0}, kJournalDamaged},
        {1, {4, 0x80}, kJournalDamaged},
        {1, {0xFC, 0xFF, 0xFF, 0xFF, 0x1F, 0}, kJournalRead}, // the largest size
        {1, {0x80, 0x80, 0x80, 0x80, 0x20, 0}, kJournalDamaged},
        {1, {0x80, 0x80, 0x80, 0x80, 0x80, 0, 0}, kJournalDamaged},
        {1, {4, 0xFF, 0xFF, 0xFF, 0xFF, 0x1F}, kJournalDamaged}, // a time of more than 32 bits
    };
    for (const auto &row : cases) {
        Bytes group(empty.begin(), empty.begin() + kJournalGroupHeaderBytes);
        group[11] = row.frames;
        group.insert(group.end(), row.records.begin(), row.records.end());
        group = seal(group);
        journal_group_reader_t reader;
        EXPECT_EQ(journal_open_group(&reader, group.data(), group.size(), kSession), row.result)
            << testing::PrintToString(row.records);
    }
}

TEST(Journal, NeverWritesBeyondAGroup)
{
    struct {
        journal_group_t group;
        uint8_t guard[16];
    } memory;
    memset(&memory, 0xEE, sizeof(memory));
    const Bytes data(70000);
    journal_begin_group(&memory.group, kSession, 0);
    uint32_t frames = 0;
    journal_frame_t frame = {MUX_TYPE_VIDEO, 70000, 0, 0};
    while (journal_add_frame(&memory.group, &frame, data.data())) {
        frames++;
        EXPECT_EQ(journal_is_nearly_full(&memory.group) && frames < 1000, false);
        frame.time_ms += 0x77777777;
    }
    EXPECT_TRUE(journal_is_nearly_full(&memory.group));
    EXPECT_EQ(memory.group.frames, frames);
    EXPECT_LE(journal_end_group(&memory.group), kJournalGroupBytes);
    EXPECT_EQ(memory.guard[0], 0xEE);
    journal_group_reader_t reader;
    EXPECT_EQ(journal_open_group(&reader, memory.group.bytes, kJournalGroupBytes, kSession),
              kJournalRead);
    EXPECT_EQ(reader.frames, frames);
}

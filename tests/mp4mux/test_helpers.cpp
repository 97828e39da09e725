// Calendar, strings and stream formats.
#include "mp4mux/c_strings.h"
#include "mp4mux/calendar.h"
#include "mp4mux/stream_format.h"
#include "tests/support/mux_recording.h"

#include <cstring>
#include <ctime>

using namespace mux_test;

namespace {

TEST(Calendar, AgreesWithTheSystemOnEveryDay)
{
    const uint32_t last_day = sizeof(time_t) > 4 ? 49709 : 24853; // of 32 bits, in 2106 or 2038
    for (uint32_t days = 0; days <= last_day; days++) {
        const uint32_t seconds = days * 86400 + days * 7919 % 86400;
        const time_t time = static_cast<time_t>(seconds);
        struct tm expected = {};
        gmtime_r(&time, &expected);
        mp4_mux_tm_t tm = {};
        mp4_mux_to_tm(seconds, &tm);
        ASSERT_EQ(tm.m_iYearDay, expected.tm_yday);
        char text[32];
        std::strftime(text, sizeof(text), "%a %b %d %H:%M:%S %Y\n", &expected);
        ASSERT_STREQ(mp4_mux_asc_time(&tm), text);
        tm.m_iYear += 1900;
        tm.m_iYearDay = -1;
        if (tm.m_iYear <= 2100) { // the formula treats 2100 as a leap year
            ASSERT_EQ(mp4_mux_tm_to_time(&tm), seconds);
            ASSERT_EQ(tm.m_iYearDay, expected.tm_yday);
        }
    }
}

TEST(Calendar, RefusesDaysThatDoNotExist)
{
    const struct {
        int32_t year, month, day;
        int64_t seconds;
    } cases[] = {{2012, 1, 29, 1330473600}, {1904, 0, 1, -2082844800}, {1900, 1, 29, -1},
                 {2009, 3, 31, -1},         {2009, 12, 1, -1},         {2009, -1, 1, -1}};
    for (const auto &c : cases) {
        mp4_mux_tm_t tm = {.m_iDay = c.day, .m_iMonth = c.month, .m_iYear = c.year};
        EXPECT_EQ(mp4_mux_tm_to_time(&tm), c.seconds) << c.year << " " << c.month;
        EXPECT_EQ(std::strlen(mp4_mux_asc_time(&tm)), 25u);
    }
}

TEST(Strings, CompareUpToTheShorterOne)
{
    EXPECT_EQ(mp4_mux_strcmp("LC", "LC/sbr"), 0);
    EXPECT_EQ(mp4_mux_strcmp("a\xFF", "a\x01"), 254);
    EXPECT_LT(mp4_mux_strcmp("", "a"), 0);
    EXPECT_EQ(mp4_mux_strncmp("abc", "abd", 2), 0);
    EXPECT_EQ(mp4_mux_strncmp("ab", "ab", 9), 0);
    EXPECT_LT(mp4_mux_strncmp("abc", "abd", 3), 0);
    const char *text = "media";
    EXPECT_EQ(mp4_mux_strchr(text, 'd'), text + 2);
    EXPECT_EQ(mp4_mux_strchr(text, '\0'), nullptr);
    EXPECT_EQ(mp4_mux_strstr(text, "dia"), text + 2);
    EXPECT_EQ(mp4_mux_strstr(text, ""), text);
    EXPECT_EQ(mp4_mux_strstr(text, "dial"), nullptr);
    EXPECT_EQ(mp4_mux_strstr("", ""), nullptr);
    for (int c = 0; c < 256; c++) {
        EXPECT_EQ(mp4_mux_toupper(c), c >= 'a' && c <= 'z' ? c - 32 : c);
    }
    char joined[8];
    EXPECT_STREQ(mp4_mux_strcat(mp4_mux_strcpy(joined, "abc"), "def"), "abcdef");
}

class Formats : public MuxTest {
  protected:
    mp4_mux_t mux = make_context(true);
    mp4_mux_format_t format = {};

    int32_t build(const char *profile, int32_t rate)
    {
        char record[20] = {};
        std::strcpy(record + 12, profile);
        return mp4_mux_aac_build_config(&mux, nullptr, reinterpret_cast<uint8_t *>(record), rate,
                                        &format);
    }
    Bytes extra() const
    {
        const uint8_t *from = static_cast<const uint8_t *>(format.m_pExtra);
        return {from, from + format.m_iExtraSize};
    }
};

TEST_F(Formats, BuildAnAudioConfiguration)
{
    struct {
        const char *profile;
        int32_t record_rate, rate;
        const char *config;
        int32_t resulting_rate;
    } const cases[] = {
        // clang-format off
        {"plain", 48000, 48000, "1190", 48000}, {"LC", 48000, 48000, "119056E598", 48000},
        {"MAIN", 44100, 44100, "0A10", 44100}, {"SSR", 8000, 8000, "1D90", 8000},
        {"LTP", 1000, 1000, "2590", 1000}, {"sbr", 96000, 96000, "2810", 96000},
        {"plain", 0, 48000, "131056E598", 48000}, {"plain", 0, 16000, "141056E5A8", 32000},
        {"LC/sbr", 22050, 22050, "139056E5A0", 44100},
        {"LC/sbr", INT32_MIN, INT32_MIN, "159056E5D8", 0},
        // clang-format on
    };
    for (const auto &c : cases) {
        format.m_iSampleRate = c.record_rate;
        format.m_iChannels = 2;
        ASSERT_EQ(build(c.profile, c.rate), 0);
        EXPECT_EQ(extra(), bytes(c.config)) << c.profile;
        EXPECT_EQ(format.m_iSampleRate, c.resulting_rate) << c.profile;
    }
    world.fail = {call::realloc, world.calls[call::realloc] + 1};
    EXPECT_EQ(build("LC", 48000), MUX_ERR_MEMORY);
    mp4_mux_clear_data_memory(&mux, nullptr, &format.m_pExtra);
}

TEST_F(Formats, ComeFromWaveAndBitmapHeaders)
{
    Bytes wave =
        bytes("FF00 0200 80BB0000 00000000 0000 1000 0200 1190"); // AAC, 2 bytes of configuration
    ASSERT_EQ(build("X", 0), 0); // the record now owns bytes, which the next description frees
    for (const int32_t length : {15, 20, 19}) {
        mp4_mux_set_wave_format(&mux, nullptr, wave.data(), length, &format);
        EXPECT_EQ(format.m_iSampleRate, length == 15 ? 0 : 48000);
        EXPECT_EQ(extra(), length == 20 ? bytes("1190") : bytes(length == 15 ? "1580" : ""));
    }
    wave = bytes("0130 0200 80BB0000 00770100 0200 0C00"); // not PCM: 3 bytes are not 2
    mp4_mux_set_wave_format(&mux, nullptr, wave.data(), 16, &format);
    EXPECT_EQ(format.m_uiFormatTag, 0x3001u);
    wave = bytes("0130 0200 80BB0000 80320200 0300 0C00");
    mp4_mux_set_wave_format(&mux, nullptr, wave.data(), 16, &format);
    EXPECT_EQ(format.m_uiFormatTag, 1u);
    EXPECT_EQ(format.m_iBitsPerSample, 16);

    Bytes bitmap =
        bytes("2B000000 40010000 10FFFFFF 0100 1800 'H264'") + Bytes(20, 0) + bytes("010203");
    mp4_mux_set_bitmap_format(&mux, nullptr, bitmap.data(), 42, &format);
    EXPECT_EQ(format.m_uiFormatTag, 1u) << "less than the header's own size";
    mp4_mux_set_bitmap_format(&mux, nullptr, bitmap.data(), 43, &format);
    EXPECT_EQ(format.m_iWidth, 320);
    EXPECT_EQ(format.m_iHeight, 240);
    EXPECT_EQ(format.m_uiFormatTag, 0x34363248u);
    EXPECT_EQ(extra(), bytes("010203"));
}

TEST_F(Formats, LendZeroedMemory)
{
    void *slot = nullptr;
    EXPECT_EQ(mp4_mux_get_allocated_data(&mux, nullptr, 9, &slot), 0);
    EXPECT_EQ(std::string(static_cast<char *>(slot), 9), std::string(9, '\0'));
    mp4_mux_clear_allocated_data(&mux, nullptr, &slot);
    EXPECT_EQ(mp4_mux_get_allocated_data(&mux, nullptr, 0, &slot), 0);
    EXPECT_EQ(slot, nullptr);
}

} // namespace

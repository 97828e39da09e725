// Helpers of the muxer that its own operations hardly reach: stream formats from headers of any
// kind, and strings and the calendar, compared with the C library.
//
// Input: what fails (1 byte), two texts after their lengths, a character, a time of 4 bytes, nine
// numbers of 4 bytes for a date; then operations on one stream format: kind, and a header, or a
// profile's name with two rates, after its length.
#include "fuzz/input.h"
#include "mp4mux/c_strings.h"
#include "mp4mux/calendar.h"
#include "mp4mux/stream_format.h"
#include "tests/support/mux_callbacks.h"

#include <cstring>
#include <ctime>
#include <deque>

using mux_test::world;

static void build_config(fuzz_input &input, mp4_mux_t &mux, mp4_mux_format_t &format)
{
    Bytes profile(12);
    const Bytes name = input.bytes(input.u8() % 16);
    profile.insert(profile.end(), name.begin(), name.end());
    profile.push_back(0);
    format.m_iSampleRate = static_cast<int32_t>(input.number(4));
    const int32_t rate = static_cast<int32_t>(input.number(4));
    const bool fits = mp4_mux_aac_build_config(&mux, nullptr, profile.data(), rate, &format) == 0;
    const uint8_t *config = static_cast<const uint8_t *>(format.m_pExtra);
    require(!fits || format.m_iExtraSize == 2 || (config[2] == 0x56 && config[3] == 0xE5),
            "a configuration has 2 bytes, or 5 with the extension");
    require(!fits || (config[0] >> 3 >= 1 && config[0] >> 3 <= 5), "an object type of AAC");
}

static void describe_formats(fuzz_input &input)
{
    mp4_mux_t mux = mux_test::make_context(true);
    mp4_mux_format_t format = {};
    std::deque<Bytes> headers; // the format points into them
    for (int i = 0; i < 16 && !input.left.empty(); i++) {
        const uint32_t kind = input.u8() % 4;
        if (kind < 2) {
            Bytes &header = headers.emplace_back(input.bytes(input.u8()));
            const int32_t length = static_cast<int32_t>(header.size());
            (kind == 0 ? mp4_mux_set_wave_format
                       : mp4_mux_set_bitmap_format)(&mux, nullptr, header.data(), length, &format);
        } else if (kind == 2) {
            build_config(input, mux, format);
        } else {
            void *slot = nullptr;
            (void)mp4_mux_get_allocated_data(&mux, nullptr, input.u16(), &slot);
            (void)mp4_mux_clear_allocated_data(&mux, nullptr, &slot);
        }
        const uint8_t *extra = static_cast<const uint8_t *>(format.m_pExtra);
        require(extra != nullptr || format.m_iExtraSize == 0, "no count without extra bytes");
        const Bytes readable(extra, extra + format.m_iExtraSize);
    }
    Bytes last(16);
    mp4_mux_set_wave_format(&mux, nullptr, last.data(), 16, &format); // frees what the format owns
}

static int sign(int value)
{
    return value > 0 ? 1 : value < 0 ? -1 : 0;
}

static std::string read_text(fuzz_input &input)
{
    const Bytes bytes = input.bytes(input.u8() % 32);
    const std::string text(bytes.begin(), bytes.end());
    return text.c_str(); // up to the first zero
}

static void compare_texts(fuzz_input &input)
{
    const std::string a = read_text(input);
    const std::string b = read_text(input);
    const int character = static_cast<int>(input.u8());
    const int32_t count = static_cast<int32_t>(a.size() / 2 + 1);
    const size_t shorter = std::min(a.size(), b.size());
    const char *const found = a.empty() ? nullptr : std::strstr(a.c_str(), b.c_str());
    require(mp4_mux_strlen(a.c_str()) == static_cast<int32_t>(a.size()), "the length");
    require(mp4_mux_strstr(a.c_str(), b.c_str()) == found, "a text in a text");
    require(character == 0 ||
                mp4_mux_strchr(a.c_str(), character) == std::strchr(a.c_str(), character),
            "a character in a text");
    require(sign(mp4_mux_strncmp(a.c_str(), b.c_str(), count)) ==
                sign(std::strncmp(a.c_str(), b.c_str(), static_cast<size_t>(count))),
            "the order of the first characters");
    require(shorter == 0 || sign(mp4_mux_strcmp(a.c_str(), b.c_str())) ==
                                sign(std::strncmp(a.c_str(), b.c_str(), shorter)),
            "the order up to the shorter one");
    std::string joined(a.size() + b.size() + 1, 'x');
    mp4_mux_strcat(mp4_mux_strcpy(joined.data(), a.c_str()), b.c_str());
    require(joined.c_str() == a + b, "two texts joined");
}

static void convert_times(fuzz_input &input)
{
    const uint32_t latest = sizeof(time_t) > 4 ? UINT32_MAX : INT32_MAX; // for the C library
    const uint32_t seconds = static_cast<uint32_t>(input.number(4)) & latest;
    const time_t time = static_cast<time_t>(seconds);
    struct tm expected = {};
    gmtime_r(&time, &expected);
    mp4_mux_tm_t tm = {};
    mp4_mux_to_tm(seconds, &tm);
    require(tm.m_iYear == expected.tm_year && tm.m_iMonth == expected.tm_mon &&
                tm.m_iDay == expected.tm_mday && tm.m_iWeekDay == expected.tm_wday,
            "the date of a time");
    int32_t numbers[9] = {};
    for (int32_t &number : numbers) {
        number = static_cast<int32_t>(input.number(4));
    }
    static_assert(sizeof(tm) == sizeof(numbers));
    std::memcpy(&tm, numbers, sizeof(tm)); // any date at all
    require(std::strlen(mp4_mux_asc_time(&tm)) == 25, "a time's text");
    const int64_t back = mp4_mux_tm_to_time(&tm);
    require(back == -1 || (tm.m_iMonth >= 0 && tm.m_iMonth <= 11), "the month is in the calendar");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input = {{data, size}};
    mux_test::reset_world();
    world.fail = {.kind = mux_test::call::realloc, .at = input.u8()};
    compare_texts(input);
    convert_times(input);
    describe_formats(input);
    require(mux_test::leftovers().empty(), mux_test::leftovers());
    return 0;
}

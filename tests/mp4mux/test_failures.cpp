// The error model, hostile arguments, and every callback failing in turn.
#include "mp4mux/mux_error.h"
#include "mp4read/mp4_reader.h"
#include "tests/support/mux_recording.h"

using namespace mux_test;

namespace {

class Failures : public MuxTest {};

TEST(ErrorRecord, ReadsInnermostFirstAndNeverOverflows)
{
    mp4_mux_last_error_t error = {};
    EXPECT_EQ(mp4_mux_set_last_error(-5, 7, "cause", &error), -5);
    EXPECT_EQ(mp4_mux_add_err_string("<step", &error), -5);
    EXPECT_EQ(mp4_mux_set_last_error(-6, 0, nullptr, &error), -6);
    EXPECT_EQ(mp4_mux_add_err_string(nullptr, &error), 0);
    EXPECT_STREQ(error.m_szMessage, "cause<step");
    const std::string full(300, 'm');
    mp4_mux_set_last_error(-5, 0, full.c_str(), &error);
    EXPECT_EQ(mp4_mux_add_err_string("<tag", &error), -5);
    EXPECT_EQ(std::string(error.m_szMessage), full.substr(0, 256));
    mp4_mux_clear_last_error(&error);
    EXPECT_EQ(error.m_iCode, 0);
    EXPECT_EQ(error.m_iLength, 0);
    EXPECT_EQ(error.m_szMessage[255], '\0');
}

TEST_F(Failures, OfTheEntryPointAreReported)
{
    recording r;
    EXPECT_EQ(QVR_MP4_MUX(12345, &r.handle, nullptr, nullptr), MUX_ERR_HANDLE);
    EXPECT_EQ(QVR_MP4_MUX(MUX_CLOSE, nullptr, nullptr, nullptr), MUX_ERR_HANDLE);
    EXPECT_EQ(QVR_MP4_MUX(MUX_OPEN, &r.handle, nullptr, &r.input), MUX_ERR_HANDLE);
    ASSERT_EQ(r.open(), 0);
    EXPECT_EQ(QVR_MP4_MUX(12345, &r.handle, nullptr, nullptr), MUX_ERR_INVALID);
    EXPECT_EQ(r.message(), "invalid operation code");
    EXPECT_EQ(QVR_MP4_MUX(MUX_GET_LAST_ERROR, &r.handle, nullptr, nullptr), 0);
    char version[17];
    char date[9];
    EXPECT_EQ(QVR_MP4_MUX(MUX_GET_VERSION, &r.handle, version, date), 0);
    EXPECT_EQ(std::string(version).size(), 16u);
    EXPECT_EQ(std::string(date).size(), 8u);
    EXPECT_EQ(QVR_MP4_MUX(MUX_GET_VERSION, &r.handle, nullptr, nullptr), 0);
    ASSERT_EQ(r.close(), 0);
    EXPECT_EQ(r.close(), MUX_ERR_HANDLE);
}

const char kNoCache[] = "input cache size is zero";
const char kBadCache[] = "track cache size is out of range";
const char kSmallCache[] = "track cache is too small<init";
const std::string kLongName(300, 'd');
const uint8_t kByte = 0;
const mp4_mux_userbox_t kEmptyBox = {1, nullptr, 1};
const mp4_mux_userbox_t kHugeBox = {1, &kByte, 0x80000000};
const uint32_t kBrand = 0;
const mp4_mux_ftyp_t kEmptyFtyp = {{'i', 's', 'o', 'm'}, 0, nullptr, 1};
const mp4_mux_ftyp_t kLongFtyp = {{'i', 's', 'o', 'm'}, 0, &kBrand, 1 << 28};

TEST_F(Failures, OfTheOpenLeaveAHandleToQueryAndClose)
{
    using enum cache_layout;
    using R = recording;
    // clang-format off
    const struct {
        cache_layout layout;
        int32_t code;
        std::string message;
        void (*spoil)(R &);
    } cases[] = {
        {own, MUX_ERR_NO_STREAM, "stream does not exist", [](R &r) { r.init.m_uiStreamFlags = 4; }},
        {own, MUX_ERR_INVALID, "a callback is NULL", [](R &r) { r.init.m_pfnFread = nullptr; }},
        {recorder, MUX_ERR_CACHE_SIZE, kNoCache, [](R &r) { r.init.m_iCacheSize = 0; }},
        {recorder, MUX_ERR_CACHE_SIZE, kNoCache, [](R &r) { r.init.m_iCacheSize = 3; }},
        {recorder, MUX_ERR_CACHE_SIZE, kBadCache, [](R &r) { r.init.m_iVideoCacheSize = -8; }},
        {recorder, MUX_ERR_CACHE_SIZE, kBadCache,
         [](R &r) { r.init.m_iVideoCacheSize = INT32_MAX - 0x100000; }},
        {tiny, MUX_ERR_MEMORY, kSmallCache, [](R &r) { r.init.m_iAudioCacheSize = 7; }},
        {tiny, MUX_ERR_MEMORY, kSmallCache, [](R &r) { r.init.m_iVideoCacheSize = 13; }},
        {own, MUX_ERR_INVALID, "output is beyond 32-bit positions", [](R &) { world.files["out.mp4"].position = 1u << 31; }},
        {own, MUX_ERR_OPEN, "scratch file name is too long<init",
         [](R &r) { r.init.m_pszTempDir = kLongName.c_str(); }},
        {own, MUX_ERR_INVALID, "mp4_mux_userbox_t's value is NULL",
         [](R &r) { r.input.m_pstUserBox = nullptr; }},
        {own, MUX_ERR_INVALID, "mp4_mux_userbox_t's data is NULL",
         [](R &r) { r.input.m_pstUserBox = &kEmptyBox; }},
        {own, MUX_ERR_INVALID, "mp4_mux_userbox_t's data is too large",
         [](R &r) { r.input.m_pstUserBox = &kHugeBox; }},
        {own, MUX_ERR_INVALID, "mp4_mux_ftyp_t's value is NULL",
         [](R &r) { r.input.m_pstFtyp = &kEmptyFtyp; }},
        {own, MUX_ERR_INVALID, "mp4_mux_ftyp_t has too many brands",
         [](R &r) { r.input.m_pstFtyp = &kLongFtyp; }},
    };
    // clang-format on
    const mp4_mux_userbox_t box = {1, &kByte, 1};
    for (const auto &c : cases) {
        reset_world();
        recording r(true);
        r.set_cache(c.layout);
        r.input.m_pstUserBox = &box;
        r.input.m_uiUserBoxCount = 1;
        r.init.m_uiOptions = MUX_OPTION_OUTPUT_IS_HANDLE; // the muxer's from here on
        r.init.m_pOutput = open_file("out.mp4");
        c.spoil(r);
        EXPECT_EQ(r.open(), c.code) << c.message;
        EXPECT_EQ(r.message(), c.message + "<mux_open");
        EXPECT_EQ(world.calls[call::fwrite], 0u);
        EXPECT_LT(r.video(0, 10), 0);
        EXPECT_EQ(r.close(), 0);
        EXPECT_EQ(r.handle, nullptr);
        EXPECT_EQ(leftovers(), "");
    }
}

TEST_F(Failures, OfAFrameLeaveTheFileAsItWas)
{
    recording r(false, MUX_STREAM_VIDEO);
    ASSERT_EQ(r.open(), 0);
    ASSERT_EQ(r.video(0, 50, true), 0);
    struct {
        mp4_mux_putstream_t frame;
        int32_t code;
        const char *message;
    } cases[] = {
        {{nullptr, 10, 1}, MUX_ERR_INVALID, "mp4_mux_putstream_t's data is NULL"},
        {{&kByte, -1, 1}, MUX_ERR_INVALID, "mp4_mux_putstream_t's size is negative"},
        {{&kByte, 1, 2}, MUX_ERR_NO_STREAM, "stream does not exist"},
        {{&kByte, 1, 7}, MUX_ERR_NO_STREAM, "stream does not exist"},
    };
    for (auto &c : cases) {
        EXPECT_EQ(QVR_MP4_MUX(MUX_PUTFRAME, &r.handle, &c.frame, nullptr), c.code);
        EXPECT_EQ(r.message(), c.message);
    }
    EXPECT_EQ(QVR_MP4_MUX(MUX_PUTFRAME, &r.handle, nullptr, nullptr), MUX_ERR_INVALID);
    EXPECT_EQ(r.message(), "mp4_mux_putstream_t's value is NULL");
    ASSERT_EQ(r.video(40, 60), 0);
    EXPECT_EQ(r.message(), "");
    ASSERT_EQ(r.close(), 0);
    EXPECT_EQ(check_samples(r), "");
}

Bytes unit(const Bytes &bytes)
{
    return Bytes{0, 0, 0, static_cast<uint8_t>(bytes.size())} + bytes;
}

const Bytes kSlice = bytes("65 88 80");
const Bytes kOtherSps = bytes("67 64 00 0D 01");

// Configurations from a first frame beyond those in the table of set-ups.
TEST_F(Failures, OfAConfigurationLeaveNoRecord)
{
    const Bytes record = bytes("01 42C01E FF E1 000A 6742C01EDA0507E84010 01 0004 68CE3C80");
    const Bytes start3 = bytes("000001");
    struct {
        Bytes config, frame, record;
    } const cases[] = {
        {{}, unit(kOtherSps) + unit(kSps) + unit(kPps) + unit(kOtherSps), record},
        {{}, unit(kSps) + unit(kSlice), {}},
        {{}, unit(kPps) + unit(bytes("674200")), {}},
        {{}, unit({}) + unit(kPps) + bytes("00000005 67420000"), {}},
        {{}, unit(kPps) + bytes("FFFFFFFF 67420000"), {}},
        {{}, unit(kPps) + bytes("000000"), {}},
        {{}, {}, {}},
        {start3 + kSps + start3 + kPps, unit(kOtherSps) + unit(kPps), record}, // from the caller
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        reset_world();
        recording r(false, MUX_STREAM_VIDEO);
        r.video_private = cases[i].config;
        EXPECT_EQ(r.open(), 0);
        EXPECT_EQ(r.put(MUX_TYPE_VIDEO, cases[i].frame, 0), 0);
        EXPECT_EQ(r.video(40, 10), 0); // the first may be empty
        EXPECT_EQ(r.close(), 0);
        const mp4_reader::movie movie = mp4_reader::read_movie(world.files["out.mp4"].bytes);
        EXPECT_EQ(movie.tracks.at(0).avc.record, cases[i].record) << i;
        EXPECT_EQ(first_fault(movie), "");
        EXPECT_EQ(leftovers(), "");
    }
}

enum class lasting { once, partly, to_the_close, for_ever };

// How a file is recorded.
struct trial {
    cache_layout layout = cache_layout::tiny; // the tables overflow into files all the time
    int32_t close_memory = 0;
    bool with_64bit = false, append = false;
    bool has_boxes = false; // the caller's, larger than the cache
};

struct outcome {
    int32_t first = 0;   // the first result of an operation that was not 0
    std::string message; // and its message, or that of a head that could not be written
    bool passed = false; // it came and ended while frames were put, and the close succeeded
    std::string fault;   // how the result of the close contradicts the file
    Bytes file;
};

int32_t open_trial(recording &r, const trial &t)
{
    static const Bytes k_data(20, 0x42);
    static const mp4_mux_userbox_t k_box = {code("usr1"), k_data.data(), 20};
    static const mp4_mux_ftyp_t k_ftyp = {{'m', 'p', '4', '2'}, 0, &k_box.m_uiType, 1};
    r.set_cache(t.layout);
    r.lend_close_memory(t.close_memory);
    r.video_private.clear(); // so that a frame allocates too
    r.init.m_pfnAppendFile = t.append ? append_whole_file : nullptr;
    r.input.m_pstFtyp = t.has_boxes ? &k_ftyp : nullptr;
    r.input.m_pstUserBox = &k_box;
    r.input.m_uiUserBoxCount = t.has_boxes ? 1 : 0;
    return r.open();
}

// After a close that failed, the file must differ from that of a clean run, unless only fclose
// failed. After one that succeeded, it must be that file, or lack only frames that were refused.
std::string fault_of(const recording &r, call kind, bool came_late, int32_t closed,
                     const Bytes &clean)
{
    const bool is_clean = world.files["out.mp4"].bytes == clean;
    if (clean.empty() || (is_clean && closed == 0)) {
        return clean.empty() ? check_samples(r) : "";
    }
    if (closed < 0) {
        return is_clean && came_late && kind != call::fclose ? "reported although complete" : "";
    }
    return came_late ? "passed although incomplete" : check_samples(r);
}

// Records while a callback fails, continues after errors, and closes the file.
outcome record_with(const trial &t, call kind, uint32_t at, lasting how, const Bytes &clean,
                    const failure &also = {})
{
    reset_world();
    world.fail_too = also;
    world.fail = {kind, at, how > lasting::partly, how == lasting::partly};
    outcome o;
    recording r(t.with_64bit);
    const auto note = [&](int32_t result) {
        o.first = o.message.empty() ? result : o.first;
        o.message = o.message.empty() ? r.message() : o.message;
    };
    note(open_trial(r, t));
    if (r.handle == nullptr) {
        return o;
    }
    const bool came_after_head = world.calls[kind] < at;
    note(r.put(MUX_TYPE_VIDEO, unit(kSps) + unit(kPps), 0, true));
    for (uint32_t i = 1; i <= 12; i++) {
        note(i % 2 == 1 ? r.video(i * 20, 9 + i, i % 4 == 1) : r.audio(i * 20, 5 + i));
    }
    const bool came_late = world.calls[kind] < at;
    const bool is_over = came_after_head && !came_late && how != lasting::for_ever;
    world.fail = how == lasting::to_the_close ? failure{} : world.fail;
    const int32_t closed = r.close();
    o.passed = is_over && closed == 0;
    if (closed < 0) {
        note(closed);
        EXPECT_FALSE(is_over && also.at == 0) << "the failure was over: " << r.message();
        EXPECT_LT(r.video(1000, 10), 0) << "a closed file takes no frames";
        EXPECT_EQ(r.close(), 0) << "the second close only releases";
    }
    EXPECT_EQ(r.handle, nullptr);
    o.fault = world.opened.empty() ? "" : fault_of(r, kind, came_late, closed, clean);
    o.file = world.files["out.mp4"].bytes;
    EXPECT_TRUE(world.opened.empty() || leftovers() == "") << leftovers();
    return o;
}

// The code and message of a failure of each kind.
const struct {
    call kind;
    int32_t code;
    const char *message;
} kFailures[] = {
    {call::malloc, MUX_ERR_MEMORY, "Insufficient memory"},
    {call::fopen, MUX_ERR_OPEN, "can't open file"},
    {call::fwrite, MUX_ERR_WRITE, "can't write file"},
    {call::fclose, MUX_ERR_CLOSE, "Error in fclose()"},
    {call::ftell, MUX_ERR_SEEK, "can't "},
    {call::fseek, MUX_ERR_SEEK, "can't s"},
    {call::fread, MUX_ERR_EOF, "the end of the file"},
    {call::append, MUX_ERR_APPEND, ""},
    {call::remove, 0, ""},
};

void fail_every_call(const trial &t)
{
    const Bytes clean = record_with(t, call::malloc, 0, lasting::once, {}).file;
    auto calls = world.calls;
    for (const auto &f : kFailures) {
        for (uint32_t n = 4; n < 4 * (calls[f.kind] + 1); n++) {
            const lasting how = static_cast<lasting>(n % 4);
            const outcome o = record_with(t, f.kind, n / 4, how, clean);
            SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(f.kind) << " number "
                                            << n / 4 << " way " << n % 4 << ": " << o.message);
            ASSERT_EQ(o.fault, "");
            if (o.first == MUX_ERR_APPEND) { // it writes too
                ASSERT_TRUE(f.kind == call::append || f.kind == call::fwrite);
                ASSERT_THAT(o.message, testing::StartsWith("<write_st"));
            } else if (o.first != MUX_ERR_HANDLE && (o.passed || o.first < 0)) {
                ASSERT_THAT(o.message, testing::HasSubstr(f.message));
                ASSERT_TRUE(o.first == f.code || o.first == 0) << o.first;
            }
        }
    }
}

TEST_F(Failures, OfEveryCallbackLetNoIncompleteFilePass)
{
    using enum cache_layout;
    for (const int32_t close_memory : {0, 20, 5000, 1024003}) {
        for (const int form : {0, 1, 2, 3}) {
            for (const cache_layout layout : {own, recorder, pooled, tiny}) {
                const trial t = {layout, close_memory, (form & 1) != 0, form > 1, form % 3 == 0};
                SCOPED_TRACE(testing::Message() << "layout " << static_cast<int>(layout) << " lent "
                                                << close_memory << " form " << form);
                fail_every_call(t);
                if (HasFatalFailure()) {
                    return;
                }
            }
        }
    }
}

TEST_F(Failures, OfAWrongFilePositionAreReported)
{
    recording r;
    r.set_cache(cache_layout::tiny);
    r.init.m_pfnFtell = [](void *) { return int32_t{0}; };
    r.init.m_pfnFtell64 = nullptr;
    (void)r.open();
    (void)r.video(0, 50);
    EXPECT_EQ(r.video(20, 50), MUX_ERR_SEEK);
    EXPECT_EQ(r.message(), "can't get the position of a record");
    if (r.close() < 0) {
        EXPECT_EQ(r.close(), 0);
    }
    EXPECT_EQ(leftovers(), "");
}

// A later failure must not hide an earlier one that tore the movie box.
TEST_F(Failures, OfTwoWritesLetNoTornFilePass)
{
    const Bytes clean = record_with({}, call::malloc, 0, lasting::once, {}).file;
    const uint32_t writes = world.calls[call::fwrite];
    uint32_t passed = 0;
    for (uint32_t first = 1; first <= writes; first++) {
        for (uint32_t second = first + 1; second <= writes; second += 11) {
            const failure also = {call::fwrite, second};
            const outcome o = record_with({}, call::fwrite, first, lasting::once, clean, also);
            EXPECT_EQ(o.fault, "") << first << " " << second;
            passed += o.passed ? 1 : 0;
        }
    }
    EXPECT_GT(passed, 200u);
}

TEST_F(Failures, AreTaggedOnTheirWayUp)
{
    recording r(false, MUX_STREAM_VIDEO);
    r.set_cache(cache_layout::tiny);
    ASSERT_EQ(r.open(), 0);
    world.fail = {call::fwrite, world.calls[call::fwrite] + 1, true};
    EXPECT_EQ(r.video(0, 100, true), MUX_ERR_WRITE);
    EXPECT_EQ(r.message(), "can't write file(bs_write_bytes)<mp4_mux_putframe");
    EXPECT_EQ(QVR_MP4_MUX(MUX_FLUSH, &r.handle, nullptr, nullptr), MUX_ERR_WRITE);
    EXPECT_EQ(r.message(), "can't write file(bs_write_flush)<flush");
    world.fail = {};
    ASSERT_EQ(r.video(0, 100, true), 0);
    world.fail = {call::fclose, 1};
    EXPECT_EQ(r.close(), MUX_ERR_CLOSE);
    int64_t aux = 0;
    EXPECT_THAT(r.message(&aux), testing::StartsWith("Error in fclose()<mp4_mux_close.&"));
    EXPECT_NE(aux, 0);
    EXPECT_EQ(r.close(), 0);
    const Bytes clean = record_with({}, call::fseek, 0, lasting::once, {}).file;
    const uint32_t last_seek = world.calls[call::fseek]; // to the size of the last track box
    EXPECT_EQ(record_with({}, call::fseek, last_seek, lasting::once, clean).message,
              "can't seek to SEEK_SET in fseek(bs_fseek)<update_write_size1<update_moov_size7"
              "<write_trailer<mp4_mux_close");
}

} // namespace

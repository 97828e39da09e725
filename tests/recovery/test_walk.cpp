#include "aacenc/band_tables.h"
#include "recovery/aac_frame.h"
#include "recovery/media_walk.h"
#include "recovery/picture_units.h"
#include "recovery/walk_notes.h"
#include "tests/recovery/known_recording.h"
#include "tests/support/mux_recording.h"
#include "tests/support/recovery_run.h"

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <set>

using mux_test::operator+;

static constexpr int64_t kFirstFrame = kHeadBytes;

// clang-format off
static constexpr recording_options kRecordings[] = {
    // is_made, slices, slice_bytes, has_sets, rate, ch, bit/s, pns, tns, ms, lead
    {"programme",           false, 1, 4000, false, 48000, 2, 128000, 0, 0, 0,  2},
    {"programme, mono",     false, 1, 4000, false, 48000, 1,  64000, 0, 1, 0, -3},
    {"mid/side",            true,  1, 4000, true,  44100, 2,  96000, 0, 0, 1,  0},
    {"noise bands",         true,  4, 4000, false, 32000, 2,  64000, 1, 0, 0,  1},
    {"shaped noise, mono",  true,  4, 4000, true,  24000, 1,  24000, 1, 1, 0,  9},
    {"uneven slices",       true,  0, 4000, true,  22050, 2,  64000, 0, 1, 0, -1},
    {"uneven slices, mono", true,  0, 4000, false, 16000, 1,  32000, 0, 0, 0,  0},
    {"12 kHz",              false, 1, 4000, false, 12000, 2,  32000, 0, 1, 0,  4},
    {"11 kHz, mono",        true,  1, 4000, true,  11025, 1,  16000, 1, 0, 0,  0},
    {"8 kHz, mono",         true,  1, 4000, false,  8000, 1,  16000, 0, 1, 0,  1},
    {"no sound",            true,  2, 4000, true,      0, 0,      0, 0, 0, 0,  0},
};
// clang-format on

// One for each row of the table.
static const std::vector<known_recording> &recordings()
{
    static const std::vector<known_recording> made = [] {
        std::vector<known_recording> all;
        for (const recording_options &how : kRecordings) {
            all.push_back(make_known_recording(how));
        }
        return all;
    }();
    return made;
}

static int64_t end_of(const muxed_frame &frame)
{
    return frame.offset + static_cast<int64_t>(frame.bytes.size());
}

// returns: the lowest index of a rate with the same bands
static int32_t sampling_index_of(const recording_options &how)
{
    const auto rate = std::find(SampleRates, SampleRates + 9, how.sample_rate);
    const auto same = std::find(sr_info_index, sr_info_index + 9,
                                sr_info_index[std::min<ptrdiff_t>(rate - SampleRates, 8)]);
    return how.channels == 0 ? 0 : static_cast<int32_t>(same - sr_info_index) + 3;
}

struct Walk {
    std::vector<walked_frame> frames;
    int64_t end_bytes; // after the last frame
    bool has_audio;
    int32_t sampling_index, channels;
};

static Walk walk_over(const Bytes &bytes)
{
    Walk result = {};
    const recovery_source_t source = source_of(bytes);
    media_window window;
    EXPECT_TRUE(media_window_open(&window, &source));
    media_walk walk = {
        .window = &window, .position = kFirstFrame, .end = static_cast<int64_t>(bytes.size())};
    result.has_audio = media_walk_find_sound(&walk);
    EXPECT_EQ(walk.position, kFirstFrame);
    result.sampling_index = walk.sampling_index;
    result.channels = walk.channels;
    walked_frame frame;
    while (media_walk_next(&walk, &frame) == kWalkFrame) {
        result.frames.push_back(frame);
    }
    EXPECT_FALSE(window.has_failed);
    result.end_bytes = frame.skipped_bytes;
    media_window_close(&window);
    return result;
}

// returns: whether a frame that was found is one of the recording
static bool is_true(const known_recording &recording, const walked_frame &found)
{
    const auto frame =
        std::lower_bound(recording.frames.begin(), recording.frames.end(), found.offset,
                         [](const muxed_frame &a, int64_t offset) { return a.offset < offset; });
    return frame != recording.frames.end() && frame->offset == found.offset &&
           end_of(*frame) == found.offset + found.size && frame->type == found.type &&
           (found.is_sync || found.type == MUX_TYPE_AUDIO) == (frame->flags != 0);
}

// Walks over a recording of which bytes are lost, and expects its frames alone.
// out: whole: its frames that have all their bytes
static Walk walk_over_rest(const known_recording &recording, const Bytes &bytes, size_t *whole)
{
    *whole = 0;
    for (const muxed_frame &frame : recording.frames) {
        const bool is_whole = end_of(frame) <= static_cast<int64_t>(bytes.size()) &&
                              std::equal(frame.bytes.begin(), frame.bytes.end(),
                                         bytes.begin() + static_cast<ptrdiff_t>(frame.offset));
        *whole += is_whole ? 1U : 0U;
    }
    const Walk walk = walk_over(bytes);
    for (const walked_frame &frame : walk.frames) {
        EXPECT_TRUE(is_true(recording, frame)) << "at " << frame.offset << " " << frame.size;
    }
    return walk;
}

TEST(Walk, FindsEveryWholeFrameOfACutFileAndNoOther)
{
    for (const known_recording &recording : recordings()) {
        SCOPED_TRACE(recording.how.name);
        std::mt19937 random(20);
        for (int i = 0; i < 20; i++) {
            Bytes bytes = recording.finished;
            if (i > 0) {
                bytes.resize(kHeadBytes + random() % (bytes.size() - kHeadBytes));
            }
            SCOPED_TRACE(bytes.size());
            size_t whole = 0;
            const Walk walk = walk_over_rest(recording, bytes, &whole);
            EXPECT_EQ(walk.frames.size(), whole);
            for (const walked_frame &frame : walk.frames) {
                EXPECT_EQ(frame.skipped_bytes, 0);
            }
            if (i == 0) {
                EXPECT_EQ(walk.channels, recording.how.channels);
                EXPECT_EQ(walk.sampling_index, sampling_index_of(recording.how));
            }
        }
    }
}

TEST(Walk, InventsNothingWhereBlocksAreZero)
{
    static constexpr size_t kBlock = 4096;
    static constexpr size_t kHoles = 40; // in each recording, one at a time
    size_t lost = 0;
    for (const known_recording &recording : recordings()) {
        SCOPED_TRACE(recording.how.name);
        std::mt19937 random(4);
        const size_t media_end = static_cast<size_t>(end_of(recording.frames.back()));
        for (size_t i = 0; i < kHoles; i++) {
            Bytes bytes = recording.finished;
            const size_t block = random() % (media_end / kBlock);
            SCOPED_TRACE(block);
            const size_t begin = std::max<size_t>(block * kBlock, kFirstFrame);
            std::fill(bytes.begin() + static_cast<ptrdiff_t>(begin),
                      bytes.begin() + static_cast<ptrdiff_t>((block + 1) * kBlock), 0);
            size_t whole = 0;
            const size_t found = walk_over_rest(recording, bytes, &whole).frames.size();
            EXPECT_LE(found, whole);
            lost += whole - std::min(found, whole);
        }
    }
    EXPECT_LT(lost, recordings().size() * kHoles / 4) << "intact frames near the holes";
}

// Data that looks like frames everywhere: what is read for each byte stays small.
TEST(Walk, ReadsHostileDataOnlySoOften)
{
    static int64_t read_bytes;
    constexpr size_t kBytes = 1 << 20;
    std::mt19937 random(7);
    const auto fill = [&](const std::function<Bytes(size_t)> &make) {
        Bytes bytes;
        while (bytes.size() < kBytes) {
            const Bytes next = make(bytes.size());
            bytes.insert(bytes.end(), next.begin(), next.end());
        }
        return bytes;
    };
    // Units up to the end of a block, at which nothing follows them.
    const auto make_unit = [](size_t at) {
        constexpr size_t kBlock = 1 << 19;
        const size_t rest = kBlock - at % kBlock;
        return rest == kBlock  ? Bytes(4)
               : rest > 100000 ? mux_test::number(rest - 4) + Bytes{0x41, 0xFF}
                               : Bytes(rest, 0x41);
    };
    const Bytes files[] = {
        fill([](size_t) { return Bytes(4096); }),
        fill([&](size_t) { return Bytes{static_cast<uint8_t>(random())}; }),
        fill([&](size_t) { return Bytes{static_cast<uint8_t>(random() % 3)}; }),
        fill(make_unit),
        fill([](size_t) { return mux_test::bytes("00C01888"); }), // mono, or 12 MB of a picture
    };
    for (const Bytes &bytes : files) {
        recovery_source_t source = source_of(bytes);
        source.read_at = [](void *context, int64_t offset, void *buffer, int64_t count) {
            read_bytes += count;
            return source_of(*static_cast<const Bytes *>(context))
                .read_at(context, offset, buffer, count);
        };
        media_window window;
        ASSERT_TRUE(media_window_open(&window, &source));
        media_walk walk = {.window = &window,
                           .end = static_cast<int64_t>(bytes.size()),
                           .sampling_index = 3,
                           .channels = 1}; // begins as the length of a picture may
        read_bytes = 0;
        walked_frame frame;
        while (media_walk_next(&walk, &frame) == kWalkFrame) {
        }
        EXPECT_LT(read_bytes, 200 * static_cast<int64_t>(bytes.size())) << &bytes - files;
        media_window_close(&window);
    }
}

TEST(Walk, KnowsWholePictures)
{
    static constexpr struct {
        const char *picture;
        bool is_whole;
    } kPictures[] = {
        {"00000003 658880", true},
        {"00000002 09F0 00000003 658880 00000003 617080", true},
        {"00000001 0C 00000003 418880", true}, // filler data may be empty
        {"00000006 418000000380", true},       // emulation prevention
        {"00000006 418000000080", false},      // what no unit contains
        {"00000006 418000000180", false},
        {"00000006 418000000280", false},
        {"00000007 41808000000280", false},
        {"00000005 4180000000", false}, // an end in zeros
        {"00000003 418800", false},
        {"00000002 09F0", true},    // no slice
        {"00000004 658880", false}, // cut
        {"00000003 658880 000000", false},
        {"00000003 658880 00", false},
        {"00000000 00000003 658880", false},        // an empty unit
        {"00000003 E58880", false},                 // forbidden_zero_bit
        {"00000003 058880", false},                 // an IDR slice that is no reference
        {"00000003 788880 00000003 658880", false}, // for private use
        {"", false},
    };
    for (const auto &[picture, is_whole] : kPictures) {
        const Bytes bytes = mux_test::bytes(picture);
        EXPECT_EQ(are_whole_units(bytes.data(), static_cast<int32_t>(bytes.size()), false),
                  is_whole)
            << picture;
    }
}

TEST(Walk, SeesTheFirstDamageOfAnyBytes)
{
    static constexpr uint8_t kBytes[] = {0, 0, 0, 1, 2, 3, 128, 255};
    std::mt19937 random(11);
    for (int round = 0; round < 100000; round++) {
        Bytes bytes(random() % 40);
        const uint32_t others = random() % 8; // of the bytes that may be zero
        for (uint8_t &byte : bytes) {
            byte = kBytes[std::max<size_t>(random() % 8, others)];
        }
        size_t first = 0;
        while (first + 2 < bytes.size() &&
               (bytes[first] != 0 || bytes[first + 1] != 0 || bytes[first + 2] > 2)) {
            first++;
        }
        first = first + 2 < bytes.size() ? first : bytes.size();
        ASSERT_EQ(find_damage(bytes.data(), static_cast<int64_t>(bytes.size())),
                  static_cast<int64_t>(first))
            << round;
    }
}

TEST(Walk, SeesDamageAtEveryPlaceOfALongUnit)
{
    constexpr size_t kUnitBytes = 70000;
    const Bytes head = Bytes(kFirstFrame) + mux_test::number(kUnitBytes);
    for (size_t at = 65530; at < 65545; at++) {
        Bytes unit(kUnitBytes, 0xF0);
        unit[0] = 0x41;
        EXPECT_EQ(walk_over(head + unit).frames.size(), 1u);
        unit[at] = unit[at + 1] = unit[at + 2] = 0;
        EXPECT_EQ(walk_over(head + unit).frames.size(), 0u) << at;
    }
}

// A picture ends before the unit that begins the next one; a cut unit may show which.
TEST(Walk, SplitsPicturesWhereTheStandardDoes)
{
    static constexpr struct {
        const char *media;
        const char *sizes;
    } kMedia[] = {
        {"00000003 65F080 00000003 41F080", "7 7 "},
        {"00000003 61F080 00000003 65F080 00000003 655080", "7 14 "},
        {"00000003 41F080 00000003 014080", "7 7 "},
        {"00000003 41F080 00000002 06F0 00000003 41F080", "7 13 "},
        {"00000003 42F080 00000003 42F080 00000003 43F080 00000003 44F080", "7 21 "},
        {"00000003 41F080 00000009 41F0", "7 "},
        {"00000003 41F080 00000009 4150", ""},
        {"00000003 41F080 00000009 67", "7 "},
        {"00000003 65F080 00000003 655080 00000003 41F080 00000003 415080 00000003 41F080",
         "14 14 "}, // a cut between two slices
        {"00000003 65F080 00000004 41F08000", "7 "},
        {"00000003 65F080 00000003 415080", "7 7 "},
        // after damage: a picture without its delimiter, and a movie box
        {"00000002 09F0 00000003 41F080 00000002 09F0 00000003 41F080 FFFF 00000003 41F080"
         "00000002 09F0 00000003 41F080 00000002 09F0 00000003 41F080",
         "13 13 13 13 "},
        {"00000003 41F080 FFFF 00000100 'moov' 0000006C 'mvhd' 00000003 41F080 00000003 41F080"
         "00000003 41F080",
         "7 "},
        {"00000003 41F080 00000100 'moov'", "7 "},
        {"00000003 41F080 00000100 'moov' 00000003 41F080 00000003 41F080 00000003 41F080", "7 "},
        {"00000003 41F080 00000100 'mo'", "7 "},
    };
    for (const auto &[media, sizes] : kMedia) {
        const Bytes bytes = Bytes(kFirstFrame) + mux_test::bytes(media);
        std::string found;
        for (const walked_frame &frame : walk_over(bytes).frames) {
            found += std::to_string(frame.size) + " ";
        }
        EXPECT_EQ(found, sizes) << media;
    }
}

// Notes of more walks than the buffer holds come back, or none do.
TEST(WalkNotes, AreWholeOrNotUsed)
{
    static constexpr struct {
        const char *name;
        bool has_files;
        mux_test::failure fail;
        int frames;
        bool is_replayed;
    } kCases[] = {
        {"no files", false, {}, 1000, true},
        {"no files, too many", false, {}, 50000, false},
        {"files", true, {}, 50000, true},
        {"no file", true, {.kind = mux_test::call::fopen, .at = 1}, 50000, false},
        {"no room", true, {.kind = mux_test::call::fwrite, .at = 2, .partial = true}, 50000, false},
        {"no room at the end", true, {.kind = mux_test::call::fwrite, .at = 4}, 50000, false},
        {"no rewind", true, {.kind = mux_test::call::fseek, .at = 1}, 50000, false},
    };
    const auto make_frame = [](int i, int64_t end) {
        const int64_t skipped_bytes = i % 1000 == 999 ? int64_t{i} << 20 : 0;
        return walked_frame{.type = i % 3 == 0 ? MUX_TYPE_AUDIO : MUX_TYPE_VIDEO,
                            .is_sync = i % 3 == 1,
                            .offset = end + skipped_bytes,
                            .size = i % 7 == 0 ? int32_t{kLongestFrameBytes} : i,
                            .skipped_bytes = skipped_bytes};
    };
    for (const auto &tried : kCases) {
        SCOPED_TRACE(tried.name);
        mux_test::reset_world();
        mux_test::world.fail = tried.fail;
        const mp4_mux_init_t files = mux_test::make_callbacks(false);
        static walk_notes notes;
        notes = {.files = tried.has_files ? &files : nullptr};
        walk_notes_begin(&notes);
        int64_t end = 0;
        for (int i = 0; i < tried.frames; i++) {
            const walked_frame frame = make_frame(i, end);
            walk_notes_add(&notes, i % 500 == 250 ? nullptr : &frame);
            end = i % 500 == 250 ? end : frame.offset + frame.size;
        }
        walk_notes_rewind(&notes);
        EXPECT_EQ(notes.is_replayed, tried.is_replayed);
        end = 0;
        for (int i = 0; i < tried.frames && notes.is_replayed; i++) {
            const walked_frame expected = make_frame(i, end);
            walked_frame frame;
            ASSERT_EQ(walk_notes_next(&notes, end, &frame), i % 500 != 250) << i;
            if (i % 500 != 250) {
                ASSERT_TRUE(frame.type == expected.type && frame.is_sync == expected.is_sync &&
                            frame.offset == expected.offset && frame.size == expected.size &&
                            frame.skipped_bytes == expected.skipped_bytes)
                    << i;
                end = frame.offset + frame.size;
            }
        }
        walk_notes_close(&notes);
        EXPECT_EQ(mux_test::leftovers(), "");
    }
}

// Adds the faults that changes of a bit in the sound frames lead to.
static void add_faults(const known_recording &recording, std::set<std::string> &faults)
{
    // Without the values it reads otherwise, for speed.
    const auto read = [&](const Bytes &bytes) {
        const int32_t count = static_cast<int32_t>(bytes.size());
        const int32_t sampling_index = sampling_index_of(recording.how);
        static aac_frame_values values;
        const aac_frame frame = read_aac_frame(bytes.data(), count, sampling_index, nullptr);
        const aac_frame plain = read_aac_frame(bytes.data(), count, sampling_index, &values);
        EXPECT_EQ(frame.fault, plain.fault);
        EXPECT_EQ(frame.bits, plain.bits);
        if (plain.fault == nullptr) {
            EXPECT_EQ(announced_aac_bands(bytes.data(), count), values.bands);
        }
        faults.insert(frame.fault != nullptr ? frame.fault : "");
    };
    for (size_t i = 0; i < recording.frames.size(); i += 9) {
        const muxed_frame &frame = recording.frames[i];
        if (frame.type != MUX_TYPE_AUDIO) {
            continue;
        }
        Bytes bytes = frame.bytes;
        if (i % 2 == 0) {
            bytes[1] = 0xFF; // global_gain, with two channels
        }
        for (size_t bit = 0; bit < 8 * bytes.size(); bit++) {
            bytes[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
            read(bytes);
            bytes[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
        }
    }
}

TEST(AacFrame, IsRefusedWithWhatTheEncoderNeverWrites)
{
    std::set<std::string> faults;
    for (const known_recording &recording : recordings()) {
        add_faults(recording, faults);
    }
    EXPECT_THAT(
        faults,
        testing::ElementsAre(
            "", "TNS coefficient of -8", "TNS order above the profile's",
            "alignment bits other than 0", "band without mid/side", "codebook for larger values",
            "coef_res other than 1", "direction or coef_compress", "element in place of END",
            "element_instance_tag other than 0", "end of the data", "escape above 8191",
            "gain_control_data_present", "ics_reserved_bit, window_sequence or window_shape",
            "max_sfb below all bands", "ms_mask_present other than 1", "n_filt other than 1",
            "neither a single channel nor a channel pair element", "predictor_data_present",
            "pulse_data_present", "reserved or intensity codebook", "scalefactor out of range",
            "section of no band or of too many", "section that continues the previous one"));
}

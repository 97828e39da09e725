// Recordings that are interrupted anywhere, with the journals that a crash or a hostile hand
// leaves.
#include "mp4read/mp4_reader.h"
#include "tests/recovery/interrupted_recording.h"

#include <algorithm>

using namespace recovery_test;
using mux_test::operator+;

namespace {

const options kSetups[] = {
    {.name = "sets in the configuration"},
    {.name = "sets in band", .has_sets_in_band = true},
    {.name = "no sound", .has_sound = false, .pictures = 8},
    {.name = "mono", .channels = 1, .pictures = 8},
    {.name = "one group", .frames_of_group = 100, .pictures = 8},
    {.name = "several slices", .slices = 3},
};

size_t whole_frames(const recording &of, size_t media_bytes)
{
    return static_cast<size_t>(std::count_if(of.ends.begin(), of.ends.end(),
                                             [&](size_t end) { return end <= media_bytes; }));
}

Bytes cut(const Bytes &bytes, size_t count)
{
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count)};
}

Bytes zeroed(Bytes bytes, size_t begin, size_t end)
{
    std::fill(bytes.begin() + static_cast<ptrdiff_t>(begin),
              bytes.begin() + static_cast<ptrdiff_t>(std::min(end, bytes.size())), uint8_t{0});
    return bytes;
}

// Places to cut the media at: all about the ends of frames, some between them.
std::vector<size_t> places_to_cut(const recording &r, size_t from)
{
    std::vector<size_t> places;
    for (size_t bytes = from; bytes <= r.media.size(); bytes++) {
        const auto is_near = [&](size_t end) { return bytes + 8 >= end && bytes <= end + 8; };
        if (r.how.slices > 1 || bytes % 97 == 0 || bytes < 40 ||
            std::any_of(r.ends.begin(), r.ends.end(), is_near)) {
            places.push_back(bytes);
        }
    }
    return places;
}

// in: journaled: frames of the journal; without any, times are not those of the recorder
void expect_normal_stops(const recording &r, const Bytes &journal, size_t journaled,
                         const std::vector<size_t> &places)
{
    std::vector<Bytes> expected;
    for (size_t frames = 0; frames <= r.frames.size(); frames++) {
        expected.push_back(normal_stop(r, frames));
    }
    for (const size_t bytes : places) {
        const result got = recover(cut(r.media, bytes), &journal);
        const size_t frames = whole_frames(r, bytes);
        ASSERT_EQ(got.code, frames == 0 ? RECOVERY_ERR_NOTHING : RECOVERY_DONE)
            << r.how.name << ", " << bytes << " bytes: " << got.report.message;
        ASSERT_EQ(got.report.pictures + got.report.sounds, frames)
            << r.how.name << ", " << bytes << " bytes";
        ASSERT_EQ(got.report.journaled_frames, std::min(frames, journaled));
        ASSERT_TRUE(journaled == 0 || frames == 0 || got.file == expected[frames])
            << r.how.name << ", " << bytes << " bytes";
    }
}

TEST(Recovery, EqualsTheNormalStopWhereverTheMediaIsCut)
{
    for (const options &how : kSetups) {
        const recording r = make_recording(how);
        expect_normal_stops(r, r.journal, r.frames.size(), places_to_cut(r, 0));
    }
}

// The frames after the last group come back by their own syntax, and continue its times.
TEST(Recovery, EqualsTheNormalStopAfterTheEndOfTheJournal)
{
    for (const options &how : kSetups) {
        const recording r = make_recording(how);
        const size_t groups = r.journal_ends.size() > 2 ? r.journal_ends.size() / 2 : 0;
        const size_t journaled = r.journaled[groups];
        expect_normal_stops(r, cut(r.journal, r.journal_ends[groups]), journaled,
                            places_to_cut(r, journaled > 0 ? r.ends[journaled - 1] : 0));
    }
}

TEST(Recovery, PassesOverHoles)
{
    const recording r = make_recording(kSetups[0]);
    const size_t all_groups = r.journal_ends.size() - 1;
    const struct {
        const char *name;
        std::vector<size_t> lost; // frames
        size_t groups;            // of the journal
        size_t media_frames = 0;  // before the end that the head gives
    } cases[] = {
        {"one", {7}, all_groups},
        {"two in a row, in two groups", {5, 6}, all_groups},
        {"the first frame, in two places", {0, 9}, all_groups},
        {"a group and the last frame", {6, 7, 8, 9, 10, 11, r.frames.size() - 1}, all_groups},
        {"the last frames of the journal", {10, 11}, 2},
        {"one where the media data ends as the head has it", {8}, 2, 8},
    };
    for (const auto &tried : cases) {
        Bytes media = r.media;
        std::vector<size_t> left;
        for (size_t i = 0; i < r.frames.size(); i++) {
            if (std::find(tried.lost.begin(), tried.lost.end(), i) == tried.lost.end()) {
                left.push_back(i);
            } else {
                media = zeroed(media, r.ends[i] - r.frames[i].bytes.size(), r.ends[i]);
            }
        }
        if (tried.media_frames > 0) {
            const Bytes size = mux_test::number(r.ends[tried.media_frames - 1] - 28);
            std::copy(size.begin(), size.end(), media.begin() + 28);
        }
        const Bytes journal = cut(r.journal, r.journal_ends[tried.groups]);
        const result got = recover(media, &journal);
        EXPECT_EQ(got.file == normal_stop(r, left), true) << tried.name;
        memory_file file = {media};
        EXPECT_EQ(finish_in_place(&file, &journal).code, RECOVERY_ERR_HOLES) << tried.name;
        EXPECT_EQ(file.bytes == media, true) << tried.name;
    }
}

TEST(Recovery, FinishesInPlaceWhereverItIsInterrupted)
{
    const Bytes sets = programme_sets();
    for (const options &how : kSetups) {
        const recording r = make_recording(how);
        const Bytes half_journal = cut(r.journal, r.journal_ends[r.journal_ends.size() / 2]);
        const Bytes media = cut(r.media, r.media.size() - 5);
        for (const Bytes *journal :
             {&r.journal, &half_journal, static_cast<const Bytes *>(nullptr)}) {
            const mux_test::cache_layout layout =
                how.has_sound ? mux_test::cache_layout::own : mux_test::cache_layout::tiny;
            memory_file undisturbed = {media};
            const result expected = finish_in_place(&undisturbed, journal, sets, layout);
            ASSERT_EQ(expected.code, RECOVERY_DONE) << how.name << expected.report.message;
            ASSERT_TRUE(journal != &r.journal ||
                        expected.file == normal_stop(r, r.frames.size() - 1));
            ASSERT_TRUE(expected.file == recover(media, journal, sets).file) << how.name;
            memory_file without_head = {zeroed(media, 0, 36)};
            ASSERT_TRUE(expected.file ==
                        finish_in_place(&without_head, journal, sets, layout).file);
            size_t calls = 1;
            for (memory_file file = {media, calls};
                 finish_in_place(&file, journal, sets, layout).code != RECOVERY_DONE;
                 file = {media, ++calls}) {
                file.calls_left = SIZE_MAX;
                const result again = finish_in_place(&file, journal, sets);
                ASSERT_TRUE(again.file == expected.file)
                    << how.name << ", call " << calls << ": " << again.report.message;
            }
            EXPECT_GT(calls, how.has_sound ? 5u : 100u) << how.name;
        }
    }
}

Bytes flipped(Bytes bytes, size_t place)
{
    bytes[place] ^= 1;
    return bytes;
}

// The groups of a journal, its head included as the first one, with others in their places.
Bytes join(const recording &r, const std::vector<size_t> &groups, const Bytes &other = {})
{
    Bytes journal;
    for (const size_t i : groups) {
        const size_t begin = i == 0 ? 0 : r.journal_ends[i - 1];
        const auto from = r.journal.begin();
        journal = journal + Bytes(from + static_cast<ptrdiff_t>(begin),
                                  from + static_cast<ptrdiff_t>(r.journal_ends[i]));
    }
    return journal + other;
}

TEST(Recovery, UsesOfAJournalWhatDescribesTheMedia)
{
    const recording r = make_recording({.name = "four groups and a rest", .pictures = 11});
    const recording other = make_recording({.name = "other", .sample_rate = 32000, .pictures = 9});
    const uint32_t all = static_cast<uint32_t>(r.frames.size());
    ASSERT_GT(r.journal_ends.size(), 5u);
    const struct {
        const char *name;
        Bytes journal;
        int32_t use;
        uint32_t journaled_frames;
        uint32_t lost_frames = 0;
    } cases[] = {
        {"whole", r.journal, RECOVERY_JOURNAL_USED, all},
        {"empty", {}, RECOVERY_JOURNAL_DAMAGED, 0},
        {"cut in its head", cut(r.journal, 40), RECOVERY_JOURNAL_DAMAGED, 0},
        {"damaged head", flipped(r.journal, 30), RECOVERY_JOURNAL_DAMAGED, 0},
        {"other version", flipped(r.journal, 4), RECOVERY_JOURNAL_OTHER_VERSION, 0},
        {"of another recording", other.journal, RECOVERY_JOURNAL_OTHER_FILE, 0},
        {"head alone", join(r, {0}), RECOVERY_JOURNAL_USED, 0},
        {"cut in its second group", cut(r.journal, r.journal_ends[2] - 1), RECOVERY_JOURNAL_USED,
         6},
        {"damaged second group", flipped(r.journal, r.journal_ends[1] + 50), RECOVERY_JOURNAL_USED,
         all - 6},
        {"without its second group", join(r, {0, 1, 3}), RECOVERY_JOURNAL_USED, 12},
        {"a group twice", join(r, {0, 1, 1, 2}), RECOVERY_JOURNAL_USED, 12},
        {"a group after a later one", join(r, {0, 2, 1}), RECOVERY_JOURNAL_USED, 6},
        {"a group within another one", join(r, {0, 1, 2}, make_group(r.ends[7], {20, 30})),
         RECOVERY_JOURNAL_USED, 12},
        {"a group of the largest sizes",
         join(r, {0, 1, 2, 3}, make_group(r.ends[17], std::vector<uint32_t>(2700, INT32_MAX))),
         RECOVERY_JOURNAL_USED, 18, all - 18},
        {"a group after all files", join(r, {0, 1, 2}, make_group(INT64_MAX - 5, {3, 900})),
         RECOVERY_JOURNAL_USED, 12},
        {"frames of nothing", join(r, {0, 1}, make_group(r.ends[5], {0, 0, 0})),
         RECOVERY_JOURNAL_USED, 6},
    };
    for (const auto &tried : cases) {
        const result got = recover(r.media, &tried.journal, programme_sets());
        EXPECT_EQ(got.code, RECOVERY_DONE) << tried.name << ": " << got.report.message;
        EXPECT_EQ(got.report.journal, tried.use) << tried.name;
        EXPECT_EQ(got.report.journaled_frames, tried.journaled_frames) << tried.name;
        EXPECT_EQ(got.report.pictures + got.report.sounds, all - tried.lost_frames) << tried.name;
        EXPECT_EQ(got.report.holes, 0u) << tried.name;
    }
}

// The scratch tables of the first pictures.
struct scratch_files {
    Bytes tables[RECOVERY_TABLE_COUNT];
};

scratch_files make_tables(const recording &r, size_t pictures, size_t offset_error,
                          size_t size_error)
{
    scratch_files files;
    uint32_t last_ms = 0;
    for (size_t i = 0; i < r.frames.size() && pictures > 0; i++) {
        const frame &f = r.frames[i];
        if (f.type == MUX_TYPE_VIDEO) {
            const auto add = [&](int table, const Bytes &record) {
                files.tables[table] = files.tables[table] + record;
            };
            const size_t size = f.bytes.size();
            add(RECOVERY_TABLE_VIDEO_SIZES, mux_test::number(size + size_error));
            add(RECOVERY_TABLE_VIDEO_OFFSETS, mux_test::number(r.ends[i] - size + offset_error));
            if (i > 0) {
                add(RECOVERY_TABLE_VIDEO_DURATIONS,
                    mux_test::number(1) + mux_test::number((f.time_ms - last_ms) * 90));
            }
            last_ms = f.time_ms;
            pictures--;
        }
    }
    return files;
}

TEST(Recovery, TakesTimesFromTheTablesOfTheRecording)
{
    static constexpr size_t kTabled = 20;
    const recording r = make_recording({.name = "uneven", .pictures = 30, .jitter_ms = 20});
    size_t lost = 4;
    while (r.frames[lost].type != MUX_TYPE_VIDEO) {
        lost++;
    }
    const Bytes with_hole = zeroed(r.media, r.ends[lost - 1], r.ends[lost]);
    scratch_files no_sizes = make_tables(r, kTabled, 0, 0);
    no_sizes.tables[RECOVERY_TABLE_VIDEO_SIZES] = {};
    const struct {
        const char *name;
        const Bytes &media;
        scratch_files tables;
        int32_t times_from;
    } cases[] = {
        {"right", r.media, make_tables(r, kTabled, 0, 0), RECOVERY_FROM_TABLES},
        {"right, of media with a hole", with_hole, make_tables(r, kTabled, 0, 0),
         RECOVERY_FROM_TABLES},
        {"with other offsets", r.media, make_tables(r, kTabled, 1, 0), RECOVERY_FROM_MEDIA},
        {"with other sizes", r.media, make_tables(r, kTabled, 0, 1), RECOVERY_FROM_MEDIA},
        {"without sizes", r.media, no_sizes, RECOVERY_FROM_MEDIA},
    };
    for (const auto &tried : cases) {
        const result got = recover(tried.media, nullptr, programme_sets(), tried.tables.tables);
        EXPECT_EQ(got.report.times_from, tried.times_from) << tried.name;
        const mp4_reader::movie movie = mp4_reader::read_movie(got.file);
        const auto &samples = find_track(movie, "vide")->samples;
        size_t same_times = 0;
        for (const frame &f : r.frames) {
            same_times += std::any_of(samples.begin(), samples.end(), [&](const auto &sample) {
                return f.type == MUX_TYPE_VIDEO && sample.time == f.time_ms * 90;
            });
        }
        const size_t lost_pictures = &tried.media == &with_hole ? 1 : 0;
        EXPECT_EQ(samples.size(), r.how.pictures - lost_pictures) << tried.name;
        EXPECT_EQ(same_times >= kTabled - lost_pictures, tried.times_from == RECOVERY_FROM_TABLES)
            << tried.name;
    }
}

TEST(Recovery, CompletesACloseThatLostAnyBlock)
{
    static constexpr size_t kBlockBytes = 512;
    const recording r = make_recording({.name = "closed", .pictures = 290});
    const Bytes finished = normal_stop(r, r.frames.size());
    EXPECT_EQ(recover(finished, nullptr).code, RECOVERY_ERR_WHOLE);
    EXPECT_EQ(recover(finished, &r.journal).code, RECOVERY_ERR_WHOLE);
    const size_t media_bytes = r.media.size();
    for (size_t bytes = media_bytes; bytes < finished.size(); bytes += 61) {
        ASSERT_TRUE(recover(cut(finished, bytes), &r.journal).file == finished) << bytes;
    }
    const size_t first_block = media_bytes / kBlockBytes;
    for (size_t at = first_block * kBlockBytes; at < finished.size(); at += kBlockBytes) {
        const Bytes lost = zeroed(finished, std::max(at, media_bytes), at + kBlockBytes);
        ASSERT_TRUE(lost == finished || recover(lost, &r.journal).file == finished) << at;
        ASSERT_EQ(recover(lost, nullptr, programme_sets()).code,
                  lost == finished ? RECOVERY_ERR_WHOLE : RECOVERY_DONE)
            << at;
    }
    for (size_t bytes = 2; bytes <= 40; bytes++) { // of the last block
        const Bytes lost = zeroed(finished, finished.size() - bytes, finished.size());
        EXPECT_TRUE(recover(lost, &r.journal).file == finished) << bytes;
    }
    for (size_t bytes = 1; bytes <= 4; bytes++) { // of the size of the media data, cut
        const Bytes torn = zeroed(finished, 28 + 4 - bytes, 32);
        EXPECT_TRUE(recover(torn, &r.journal).file == finished) << bytes;
        EXPECT_EQ(recover(cut(torn, media_bytes), nullptr, programme_sets()).report.sounds,
                  recover(r.media, &r.journal).report.sounds)
            << bytes;
    }
}

TEST(Recovery, SurvivesEachFailingRead)
{
    const recording r = make_recording({.name = "long", .frames_of_group = 1, .pictures = 290});
    const Bytes sets = programme_sets();
    int failures = 0;
    for (size_t reads = 1; reads < 20; reads++) {
        memory_file file = {r.media};
        const result got =
            finish_in_place(&file, &r.journal, sets, mux_test::cache_layout::own, reads);
        EXPECT_EQ(got.code, RECOVERY_DONE) << got.report.message;
        EXPECT_EQ(got.report.pictures, r.how.pictures);
        file = {r.media, SIZE_MAX, reads};
        const result no_media = finish_in_place(&file, &r.journal, sets);
        failures += no_media.code == RECOVERY_ERR_READ ? 1 : 0;
        EXPECT_TRUE(no_media.code == RECOVERY_DONE ||
                    (no_media.code == RECOVERY_ERR_READ && file.bytes == r.media))
            << reads << no_media.report.message;
    }
    EXPECT_GT(failures, 2);
    for (size_t reads = 1; reads < 8; reads++) {
        memory_file file = {.bytes = r.media, .reads_to_cut = reads};
        const result got = finish_in_place(&file, &r.journal);
        EXPECT_TRUE(got.code == RECOVERY_ERR_READ ||
                    got.file == normal_stop(r, got.report.pictures + got.report.sounds))
            << reads;
    }
}

TEST(Recovery, KnowsTheSilenceThatAStopHasAdded)
{
    const recording r = make_recording(kSetups[2]);
    const Bytes finished = normal_stop(r, r.frames.size());
    EXPECT_EQ(recover(finished, &r.journal).code, RECOVERY_ERR_WHOLE);
    for (size_t bytes = r.media.size(); bytes < r.media.size() + 20; bytes++) {
        for (const size_t groups : {size_t{1}, r.journal_ends.size() - 1}) {
            const Bytes journal = cut(r.journal, r.journal_ends[groups]);
            const Bytes media = zeroed(cut(finished, bytes), 28, 32);
            const result got = recover(media, &journal);
            EXPECT_TRUE(got.file == finished) << bytes;
            EXPECT_TRUE(got.report.end_bytes == 0 || bytes != r.media.size() + 7);
        }
    }
}

// A player that splits access units before the last three bytes of a start code leaves its first
// byte at the end of the picture before.
TEST(Recovery, FindsPicturesThatEndInAZero)
{
    const recording r = make_recording(kSetups[0]);
    Bytes media = cut(r.media, 36);
    Bytes damaged;
    for (const frame &f : r.frames) {
        const size_t begin = media.size();
        media = media + f.bytes;
        if (f.type == MUX_TYPE_VIDEO) {
            const Bytes length = mux_test::number(f.bytes.size() - 4 + 1);
            std::copy(length.begin(), length.end(), media.begin() + static_cast<ptrdiff_t>(begin));
            media.push_back(0);
        }
        if (&f == &r.frames[r.frames.size() / 2]) {
            damaged = zeroed(media, media.size() - 8, media.size());
        }
    }
    const result got = recover(media, nullptr, programme_sets());
    EXPECT_EQ(got.report.pictures + got.report.sounds, r.frames.size());
    EXPECT_EQ(got.report.holes, 0u);
    const result less = recover(damaged, nullptr, programme_sets());
    EXPECT_EQ(less.report.pictures + less.report.sounds, r.frames.size() / 2);
}

TEST(Recovery, RefusesWhatItCannotRecover)
{
    const recording r = make_recording(kSetups[0]);
    const recording other = make_recording(kSetups[1]);
    const struct {
        const char *name;
        Bytes media;
        const Bytes *journal;
        int32_t code;
    } cases[] = {
        {"nothing", {}, nullptr, RECOVERY_ERR_NOTHING},
        {"a head alone", cut(r.media, 36), &r.journal, RECOVERY_ERR_NOTHING},
        {"zeros", Bytes(5000), nullptr, RECOVERY_ERR_NOTHING},
        {"other bytes", r.journal, nullptr, RECOVERY_ERR_FORMAT},
        {"no parameter sets", r.media, nullptr, RECOVERY_ERR_CONFIGURATION},
        {"a lost head", zeroed(r.media, 0, 36), &r.journal, RECOVERY_DONE},
        {"parameter sets in band", other.media, nullptr, RECOVERY_DONE},
        {"a lost part of finished media", zeroed(normal_stop(r, 20), 200, 800), &r.journal,
         RECOVERY_DONE},
        {"the same in band, without the journal", zeroed(normal_stop(other, 20), 5000, 5512),
         nullptr, RECOVERY_DONE},
    };
    for (const auto &tried : cases) {
        const result got = recover(tried.media, tried.journal);
        EXPECT_EQ(got.code, tried.code) << tried.name << ": " << got.report.message;
    }
}

} // namespace

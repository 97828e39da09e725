// Recordings that are interrupted anywhere, with the journals that a crash or a hostile hand
// leaves.
#include "tests/recovery/interrupted_recording.h"
#include "tests/support/mux_recording.h"
#include "tests/support/recovery_run.h"

#include <algorithm>
#include <cstring>

using mux_test::operator+;

namespace {

const recording_options kSetups[] = {
    {.name = "sets in the configuration", .pictures = 12},
    {.name = "sets in band", .has_sets = true, .pictures = 12},
    {.name = "no sound", .channels = 0, .pictures = 8},
    {.name = "mono", .channels = 1, .pictures = 8},
    {.name = "several slices", .is_made = true, .slices = 3, .slice_bytes = 60, .pictures = 12},
};

// Recovers into another file; a scan must agree with that.
recovered recover(const interrupted_files &files)
{
    const recovered scanned = scan_files(files);
    const recovered result = recover_files(files);
    if (result.code != RECOVERY_ERR_CONFIGURATION) {
        EXPECT_EQ(scanned.code, result.code);
        EXPECT_EQ(std::memcmp(&scanned.report, &result.report, sizeof(result.report)), 0);
    }
    EXPECT_EQ(result.code == RECOVERY_DONE, result.report.message[0] == '\0');
    return result;
}

Bytes stop_after(const known_recording &recording, size_t frames)
{
    const auto begin = recording.frames.begin();
    return normal_stop(recording.settings, {begin, begin + static_cast<ptrdiff_t>(frames)});
}

size_t whole_frames(const interrupted_recording &of, size_t media_bytes)
{
    return static_cast<size_t>(std::count_if(of.ends.begin(), of.ends.end(),
                                             [&](size_t end) { return end <= media_bytes; }));
}

Bytes cut(const Bytes &bytes, size_t count)
{
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count)};
}

Bytes zeroed(const Bytes &bytes, size_t begin, size_t end)
{
    Bytes result = bytes;
    for (size_t at = begin; at < std::min(end, bytes.size()); at++) {
        result.at(at) = 0;
    }
    return result;
}

// Places to cut the media at: all about the ends of frames, some between them.
std::vector<size_t> places_to_cut(const interrupted_recording &r)
{
    std::vector<size_t> places;
    for (size_t bytes = 0; bytes <= r.media.size(); bytes++) {
        const auto is_near = [&](size_t end) { return bytes + 8 >= end && bytes <= end + 8; };
        if (r.how.slices > 1 || bytes % 97 == 0 || bytes < 40 ||
            std::any_of(r.ends.begin(), r.ends.end(), is_near)) {
            places.push_back(bytes);
        }
    }
    return places;
}

// Without any record, times are not those of the recorder.
void expect_normal_stops(const interrupted_recording &r, size_t groups)
{
    const Bytes journal = cut(r.journal, r.journal_ends[groups]);
    const size_t journaled = r.journaled[groups];
    for (const size_t bytes : places_to_cut(r)) {
        SCOPED_TRACE(bytes);
        const recovered got = recover({cut(r.media, bytes), journal});
        const size_t frames = whole_frames(r, bytes);
        ASSERT_EQ(got.code, frames == 0 ? RECOVERY_ERR_NOTHING : RECOVERY_DONE)
            << got.report.message;
        ASSERT_EQ(got.report.pictures + got.report.sounds, frames);
        ASSERT_EQ(got.report.journaled_frames, std::min(frames, journaled));
        ASSERT_TRUE(journaled == 0 || frames == 0 || got.file == stop_after(r, frames));
    }
}

// The frames after the last group come back by their own syntax, and continue its times.
TEST(Recovery, EqualsTheNormalStopWhereverTheMediaAndTheJournalAreCut)
{
    for (const recording_options &how : kSetups) {
        SCOPED_TRACE(how.name);
        const interrupted_recording r = make_interrupted(how);
        const size_t all_groups = r.journal_ends.size() - 1;
        expect_normal_stops(r, all_groups);
        expect_normal_stops(r, all_groups > 1 ? r.journal_ends.size() / 2 : 0);
    }
}

TEST(Recovery, PassesOverHoles)
{
    const interrupted_recording r = make_interrupted(kSetups[0]);
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
        std::vector<muxed_frame> left;
        for (size_t i = 0; i < r.frames.size(); i++) {
            if (std::find(tried.lost.begin(), tried.lost.end(), i) == tried.lost.end()) {
                left.push_back(r.frames[i]);
            } else {
                media = zeroed(media, r.ends[i] - r.frames[i].bytes.size(), r.ends[i]);
            }
        }
        if (tried.media_frames > 0) {
            const Bytes size = mux_test::number(r.ends[tried.media_frames - 1] - 28);
            std::copy(size.begin(), size.end(), media.begin() + 28);
        }
        interrupted_files files = {media, cut(r.journal, r.journal_ends[tried.groups])};
        EXPECT_TRUE(recover(files).file == normal_stop(r.settings, left)) << tried.name;
        EXPECT_EQ(recover_in_place(&files).code, RECOVERY_ERR_HOLES) << tried.name;
        EXPECT_TRUE(files.media == media) << tried.name;
    }
}

Bytes flipped(Bytes bytes, size_t place)
{
    bytes[place] ^= 1;
    return bytes;
}

// The groups of a journal, its head included as the first one, with others in their places.
Bytes join(const interrupted_recording &r, const std::vector<size_t> &groups,
           const Bytes &other = {})
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
    const interrupted_recording r =
        make_interrupted({.name = "four groups and a rest", .pictures = 11});
    const interrupted_recording other =
        make_interrupted({.name = "other", .sample_rate = 32000, .lead = 1, .pictures = 9});
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
        const recovered got = recover({r.media, tried.journal, programme_sets()});
        EXPECT_EQ(got.code, RECOVERY_DONE) << tried.name << ": " << got.report.message;
        EXPECT_EQ(got.report.journal, tried.use) << tried.name;
        EXPECT_EQ(got.report.journaled_frames, tried.journaled_frames) << tried.name;
        EXPECT_EQ(got.report.pictures + got.report.sounds, all - tried.lost_frames) << tried.name;
        EXPECT_EQ(got.report.holes, 0u) << tried.name;
    }
}

// The media and the scratch tables of the first pictures.
interrupted_files with_tables(const interrupted_recording &r, size_t pictures, size_t offset_error,
                              size_t size_error)
{
    interrupted_files files = {r.media, std::nullopt, programme_sets()};
    uint32_t last_ms = 0;
    for (size_t i = 0; i < r.frames.size() && pictures > 0; i++) {
        const muxed_frame &f = r.frames[i];
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
    static constexpr uint32_t kTabled = 20;
    static constexpr uint32_t kPictures = 30;
    const interrupted_recording r =
        make_interrupted({.name = "uneven", .pictures = kPictures, .jitter_ms = 20});
    size_t lost = 4;
    while (r.frames[lost].type != MUX_TYPE_VIDEO) {
        lost++;
    }
    interrupted_files with_hole = with_tables(r, kTabled, 0, 0);
    with_hole.media = zeroed(r.media, r.ends[lost - 1], r.ends[lost]);
    interrupted_files no_sizes = with_tables(r, kTabled, 0, 0);
    no_sizes.tables[RECOVERY_TABLE_VIDEO_SIZES] = {};
    const struct {
        const char *name;
        interrupted_files files;
        int32_t times_from;
        uint32_t lost_pictures = 0;
    } cases[] = {
        {"right", with_tables(r, kTabled, 0, 0), RECOVERY_FROM_TABLES},
        {"right, of media with a hole", with_hole, RECOVERY_FROM_TABLES, 1},
        {"with other offsets", with_tables(r, kTabled, 1, 0), RECOVERY_FROM_MEDIA},
        {"with other sizes", with_tables(r, kTabled, 0, 1), RECOVERY_FROM_MEDIA},
        {"without sizes", no_sizes, RECOVERY_FROM_MEDIA},
    };
    for (const auto &tried : cases) {
        const recovered got = recover(tried.files);
        EXPECT_EQ(got.report.times_from, tried.times_from) << tried.name;
        const auto same_times = static_cast<uint32_t>(
            std::count_if(r.frames.begin(), r.frames.end(), [&](const muxed_frame &frame) {
                return frame.type == MUX_TYPE_VIDEO &&
                       std::any_of(got.frames.begin(), got.frames.end(), [&](const auto &back) {
                           return back.type == frame.type && back.time_ms == frame.time_ms;
                       });
            }));
        EXPECT_EQ(got.report.pictures + tried.lost_pictures, kPictures) << tried.name;
        EXPECT_EQ(same_times + tried.lost_pictures >= kTabled,
                  tried.times_from == RECOVERY_FROM_TABLES)
            << tried.name;
    }
}

TEST(Recovery, CompletesACloseThatLostAnyBlock)
{
    static constexpr size_t kBlockBytes = 512;
    const interrupted_recording r = make_interrupted({.name = "closed", .pictures = 290});
    const Bytes &finished = r.finished;
    EXPECT_EQ(recover({finished}).code, RECOVERY_ERR_WHOLE);
    EXPECT_EQ(recover({finished, r.journal}).code, RECOVERY_ERR_WHOLE);
    const size_t media_bytes = r.media.size();
    for (size_t bytes = media_bytes; bytes < finished.size(); bytes += 61) {
        ASSERT_TRUE(recover({cut(finished, bytes), r.journal}).file == finished) << bytes;
    }
    const size_t first_block = media_bytes / kBlockBytes;
    for (size_t at = first_block * kBlockBytes; at < finished.size(); at += kBlockBytes) {
        const Bytes lost = zeroed(finished, std::max(at, media_bytes), at + kBlockBytes);
        ASSERT_TRUE(lost == finished || recover({lost, r.journal}).file == finished) << at;
        ASSERT_EQ(recover({lost, std::nullopt, programme_sets()}).code,
                  lost == finished ? RECOVERY_ERR_WHOLE : RECOVERY_DONE)
            << at;
    }
    for (size_t bytes = 2; bytes <= 40; bytes++) { // of the last block
        const Bytes lost = zeroed(finished, finished.size() - bytes, finished.size());
        EXPECT_TRUE(recover({lost, r.journal}).file == finished) << bytes;
    }
    for (size_t bytes = 1; bytes <= 4; bytes++) { // of the size of the media data, cut
        const Bytes torn = zeroed(finished, 28 + 4 - bytes, 32);
        EXPECT_TRUE(recover({torn, r.journal}).file == finished) << bytes;
        EXPECT_EQ(recover({cut(torn, media_bytes), std::nullopt, programme_sets()}).report.sounds,
                  recover({r.media, r.journal}).report.sounds)
            << bytes;
    }
}

TEST(Recovery, SurvivesEachFailingRead)
{
    const interrupted_recording r =
        make_interrupted({.name = "long", .pictures = 290}, 1); // a frame in each group
    int failures = 0;
    for (size_t reads = 1; reads < 20; reads++) {
        interrupted_files files = {r.media, r.journal, programme_sets()};
        files.journal_reads = reads;
        const recovered got = recover_in_place(&files);
        EXPECT_EQ(got.code, RECOVERY_DONE) << got.report.message;
        EXPECT_EQ(got.report.pictures, static_cast<uint32_t>(r.how.pictures));
        files = {r.media, r.journal, programme_sets()};
        files.media_reads = reads;
        const recovered no_media = recover_in_place(&files);
        failures += no_media.code == RECOVERY_ERR_READ ? 1 : 0;
        EXPECT_TRUE(no_media.code == RECOVERY_DONE ||
                    (no_media.code == RECOVERY_ERR_READ && files.media == r.media))
            << reads << no_media.report.message;
    }
    EXPECT_GT(failures, 2);
    for (size_t reads = 1; reads < 8; reads++) {
        interrupted_files files = {r.media, r.journal};
        files.reads_to_cut = reads;
        const recovered got = recover_in_place(&files);
        EXPECT_TRUE(got.code == RECOVERY_ERR_READ ||
                    got.file == stop_after(r, got.report.pictures + got.report.sounds))
            << reads;
    }
}

TEST(Recovery, KnowsTheSilenceThatAStopHasAdded)
{
    const interrupted_recording r = make_interrupted(kSetups[2]);
    const Bytes &finished = r.finished;
    EXPECT_EQ(recover({finished, r.journal}).code, RECOVERY_ERR_WHOLE);
    for (size_t bytes = r.media.size(); bytes < r.media.size() + 20; bytes++) {
        for (const size_t groups : {size_t{1}, r.journal_ends.size() - 1}) {
            const Bytes journal = cut(r.journal, r.journal_ends[groups]);
            const Bytes media = zeroed(cut(finished, bytes), 28, 32);
            const recovered got = recover({media, journal});
            EXPECT_TRUE(got.file == finished) << bytes;
            EXPECT_TRUE(got.report.end_bytes == 0 || bytes != r.media.size() + 7);
        }
    }
}

// A player that splits access units before the last three bytes of a start code leaves its first
// byte at the end of the picture before.
TEST(Recovery, FindsPicturesThatEndInAZero)
{
    const interrupted_recording r = make_interrupted(kSetups[0]);
    Bytes media = cut(r.media, 36);
    Bytes damaged;
    for (const muxed_frame &f : r.frames) {
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
    const recovered got = recover({media, std::nullopt, programme_sets()});
    EXPECT_EQ(got.report.pictures + got.report.sounds, r.frames.size());
    EXPECT_EQ(got.report.holes, 0u);
    const recovered less = recover({damaged, std::nullopt, programme_sets()});
    EXPECT_EQ(less.report.pictures + less.report.sounds, r.frames.size() / 2);
}

TEST(Recovery, RefusesWhatItCannotRecover)
{
    const interrupted_recording r = make_interrupted(kSetups[0]);
    const interrupted_recording other = make_interrupted(kSetups[1]);
    const struct {
        const char *name;
        Bytes media;
        std::optional<Bytes> journal;
        int32_t code;
    } cases[] = {
        {"nothing", {}, std::nullopt, RECOVERY_ERR_NOTHING},
        {"a head alone", cut(r.media, 36), r.journal, RECOVERY_ERR_NOTHING},
        {"zeros", Bytes(5000), std::nullopt, RECOVERY_ERR_NOTHING},
        {"other bytes", r.journal, std::nullopt, RECOVERY_ERR_FORMAT},
        {"no parameter sets", r.media, std::nullopt, RECOVERY_ERR_CONFIGURATION},
        {"a lost head", zeroed(r.media, 0, 36), r.journal, RECOVERY_DONE},
        {"parameter sets in band", other.media, std::nullopt, RECOVERY_DONE},
        {"a lost part of finished media", zeroed(stop_after(r, 20), 200, 800), r.journal,
         RECOVERY_DONE},
        {"the same in band, without the journal", zeroed(stop_after(other, 20), 5000, 5512),
         std::nullopt, RECOVERY_DONE},
    };
    for (const auto &tried : cases) {
        const recovered got = recover({tried.media, tried.journal});
        EXPECT_EQ(got.code, tried.code) << tried.name << ": " << got.report.message;
    }
}

} // namespace

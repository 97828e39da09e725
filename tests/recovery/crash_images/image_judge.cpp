#include "tests/recovery/crash_images/image_judge.h"

#include "component/tdmbrec_interface.h"
#include "tests/support/mux_callbacks.h"

#include <algorithm>
#include <cstring>
#include <utility>

static constexpr size_t kHeadBytes = 36; // of the media, before the first frame
static constexpr uint32_t kTimeErrorMs = 5;
static constexpr size_t kFramesForExactTimes = 60; // in the journal
static constexpr size_t kTellingFrames = 3;        // in the journal: they show whose it is

static const Bytes kSilence = {0x20, 0, 0, 0, 0, 0, 0x0E};

static int64_t read_bytes(void *context, int64_t offset, void *buffer, int64_t count)
{
    const Bytes &bytes = *static_cast<const Bytes *>(context);
    const int64_t rest = std::max<int64_t>(static_cast<int64_t>(bytes.size()) - offset, 0);
    const int64_t read = std::min(rest, count);
    if (read > 0) {
        std::copy_n(bytes.data() + offset, read, static_cast<uint8_t *>(buffer));
    }
    return read;
}

static int64_t size_of_bytes(void *context)
{
    return static_cast<int64_t>(static_cast<const Bytes *>(context)->size());
}

static recovery_source_t source_of(Bytes *bytes)
{
    return {.context = bytes, .read_at = read_bytes, .size = size_of_bytes};
}

namespace {

// An image as the recovery sees it, and what it reports.
struct recovery_run {
    Bytes media;
    Bytes journal;
    Bytes tables[RECOVERY_TABLE_COUNT];
    recovery_source_t journal_source;
    recovery_source_t table_sources[RECOVERY_TABLE_COUNT];
    recovery_input_t input = {};
    recovery_report_t report = {};
    std::vector<recovery_frame_t> frames = {};
};

// What an image has of the truth.
struct image_facts {
    std::vector<bool> is_whole;     // for each frame: all its bytes
    std::vector<bool> is_journaled; // and: the group with its record
    std::vector<bool> is_required;  // and: must come back
    size_t journaled = 0;           // frames
    bool has_journal_head = false;
    bool has_media_head = false;
};

} // namespace

static bool has_bytes(const Bytes &image, int64_t begin, const Bytes &bytes, size_t from, size_t to)
{
    const size_t end = static_cast<size_t>(begin) + (to - from);
    return end <= image.size() &&
           std::equal(bytes.begin() + static_cast<ptrdiff_t>(from),
                      bytes.begin() + static_cast<ptrdiff_t>(to), image.data() + begin);
}

static Bytes file_of(const disk_image &image, size_t file)
{
    return file != kNoFile && image[file] ? *image[file] : Bytes{};
}

// Journaled frames must come back, and the others up to the first one after them that is not whole:
// where bytes are missing, the search for the next frame may pass some.
static void require_frames(image_facts *facts)
{
    bool is_walk_intact = facts->has_journal_head || facts->has_media_head;
    facts->is_required.clear();
    for (size_t i = 0; i < facts->is_whole.size(); i++) {
        is_walk_intact = facts->is_journaled[i] || (is_walk_intact && facts->is_whole[i]);
        facts->is_required.push_back(facts->is_whole[i] && is_walk_intact);
    }
}

// The recovery adds a frame of silence itself.
static bool is_silence(const recorded_truth &truth, size_t i)
{
    return i + 1 == truth.frames.size() && truth.frames[i].bytes == kSilence;
}

static image_facts facts_of(const recorded_truth &truth, const disk_image &image)
{
    image_facts facts;
    const Bytes media = file_of(image, truth.media);
    const Bytes journal = file_of(image, truth.journal);
    for (const recorded_frame &frame : truth.frames) {
        facts.is_whole.push_back(
            has_bytes(media, frame.offset, frame.bytes, 0, frame.bytes.size()));
    }
    // The size of the media data may be there or not.
    facts.has_media_head =
        has_bytes(media, 0, truth.finished, 0, kHeadBytes - 8) &&
        has_bytes(media, kHeadBytes - 4, truth.finished, kHeadBytes - 4, kHeadBytes);
    const size_t head_bytes = truth.groups.empty() ? truth.journal_bytes.size()
                                                   : static_cast<size_t>(truth.groups[0].begin);
    facts.has_journal_head =
        head_bytes > 0 && has_bytes(journal, 0, truth.journal_bytes, 0, head_bytes);
    facts.is_journaled.assign(truth.frames.size(), false);
    for (const recorded_group &group : truth.groups) {
        if (facts.has_journal_head &&
            has_bytes(journal, group.begin, truth.journal_bytes, static_cast<size_t>(group.begin),
                      static_cast<size_t>(group.end))) {
            std::fill_n(facts.is_journaled.begin() + static_cast<ptrdiff_t>(group.first_frame),
                        group.frames, true);
            facts.journaled += group.frames;
        }
    }
    require_frames(&facts);
    return facts;
}

static void note_frame(void *context, const recovery_frame_t *frame)
{
    static_cast<std::vector<recovery_frame_t> *>(context)->push_back(*frame);
}

// Where the journal shows the configuration, the caller gives none.
static void prepare_run(const recorded_truth &truth, const disk_image &image, bool shows_all,
                        recovery_run *run)
{
    run->media = file_of(image, truth.media);
    run->journal = file_of(image, truth.journal);
    run->journal_source = source_of(&run->journal);
    run->input.media = source_of(&run->media);
    run->input.journal = image[truth.journal] ? &run->journal_source : nullptr;
    for (size_t i = 0; i < RECOVERY_TABLE_COUNT; i++) {
        run->tables[i] = file_of(image, truth.tables[i]);
        run->table_sources[i] = source_of(&run->tables[i]);
        run->input.tables[i] = run->tables[i].empty() ? nullptr : &run->table_sources[i];
    }
    if (!shows_all) {
        run->input.configuration = truth.settings.video_configuration.data();
        run->input.configuration_bytes =
            static_cast<int32_t>(truth.settings.video_configuration.size());
    }
    run->input.context = &run->frames;
    run->input.frame = note_frame;
}

static std::string describe(const char *what, const recovery_frame_t &frame)
{
    return std::string(what) + ": type " + std::to_string(frame.type) + ", offset " +
           std::to_string(frame.offset) + ", " + std::to_string(frame.size) + " bytes, " +
           std::to_string(frame.time_ms) + " ms" + (frame.is_journaled != 0 ? ", journaled" : "");
}

// Journaled times are exact, and those after a journal continue the steady stream exactly. Without
// one they are nearly so, unless a hole hides how much is missing.
static std::string check_time(const recorded_truth &truth, const image_facts &facts, size_t i,
                              const recovery_frame_t &frame, bool has_holes, judge_figures *figures)
{
    const uint32_t expected_ms = truth.frames[i].time_ms;
    const uint32_t error_ms =
        std::max(frame.time_ms, expected_ms) - std::min(frame.time_ms, expected_ms);
    if (!facts.is_journaled[i]) {
        figures->extrapolated++;
        figures->off_by_ms += error_ms != 0 ? 1u : 0u;
    }
    const bool is_exact = facts.is_journaled[i] || facts.journaled >= kFramesForExactTimes;
    const uint32_t allowed_ms = is_exact ? 0 : kTimeErrorMs;
    const bool is_known =
        facts.is_journaled[i] || (facts.is_required[i] && (is_exact || !has_holes));
    if (error_ms > allowed_ms && is_known) {
        return describe("a wrong time", frame) + " instead of " + std::to_string(expected_ms);
    }
    return "";
}

// Matches what came back with the truth.
// out: is_back: for each frame of the truth
static std::string check_frames(const recorded_truth &truth, const recovery_run &run,
                                const image_facts &facts, bool may_be_stale,
                                std::vector<bool> *is_back, judge_figures *figures)
{
    is_back->assign(truth.frames.size(), false);
    for (const recovery_frame_t &frame : run.frames) {
        const auto found = std::lower_bound(
            truth.frames.begin(), truth.frames.end(), frame.offset,
            [](const recorded_frame &a, int64_t offset) { return a.offset < offset; });
        const size_t i = static_cast<size_t>(found - truth.frames.begin());
        if (found == truth.frames.end() || found->offset != frame.offset ||
            static_cast<int32_t>(found->bytes.size()) != frame.size || found->type != frame.type) {
            if (!may_be_stale || frame.is_journaled != 0) {
                return describe("an invented frame", frame);
            }
            figures->stale++;
            continue;
        }
        if ((*is_back)[i]) {
            return describe("a frame that comes back twice", frame);
        }
        (*is_back)[i] = true;
        const bool is_mixed = !facts.is_whole[i];
        if (is_mixed && !may_be_stale) {
            return describe("a frame that lacks bytes", frame);
        }
        figures->mixed += is_mixed ? 1u : 0u;
        if (!is_mixed && frame.flags != found->flags) {
            return describe("wrong flags", frame);
        }
        const std::string fault = check_time(truth, facts, i, frame, run.report.holes > 0, figures);
        if (!fault.empty()) {
            return fault;
        }
        figures->frames++;
    }
    for (size_t i = 0; i < truth.frames.size(); i++) {
        if (facts.is_whole[i] && !(*is_back)[i]) {
            if (facts.is_required[i] && !is_silence(truth, i)) {
                return "frame " + std::to_string(i) + " of " + std::to_string(truth.frames.size()) +
                       " does not come back";
            }
            figures->lost++;
        }
    }
    return "";
}

// returns: the frames as they must be in the result
static std::vector<recorded_frame> frames_of_result(const recovery_run &run)
{
    std::vector<recorded_frame> frames;
    bool has_sound = false;
    for (const recovery_frame_t &frame : run.frames) {
        const uint8_t *const begin = run.media.data() + frame.offset;
        frames.push_back({.type = frame.type,
                          .flags = frame.flags,
                          .time_ms = frame.time_ms,
                          .offset = frame.offset,
                          .bytes = Bytes(begin, begin + frame.size)});
        has_sound = has_sound || frame.type == MUX_TYPE_AUDIO;
    }
    if (!has_sound) {
        frames.push_back({.type = MUX_TYPE_AUDIO, .flags = MUX_FRAME_KEY, .bytes = kSilence});
    }
    return frames;
}

static mp4_mux_init_t output_of_muxer()
{
    static Bytes caches(0x240000);
    static char name[] = "result.mp4";
    mux_test::reset_world();
    mp4_mux_init_t init = mux_test::make_callbacks(false);
    init.m_pOutput = name;
    init.m_pCacheMem = caches.data();
    init.m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init.m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init.m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    return init;
}

static std::string difference_of(const Bytes &result, const Bytes &expected)
{
    if (result == expected) {
        return "";
    }
    const auto at = std::mismatch(result.begin(), result.end(), expected.begin(), expected.end());
    return "the result has " + std::to_string(result.size()) + " bytes instead of " +
           std::to_string(expected.size()) + " and differs at " +
           std::to_string(at.first - result.begin());
}

// Parameter sets that are only in band are in the pictures that begin a sequence.
static bool has_lost_sets(const recorded_truth &truth, const std::vector<recovery_frame_t> &frames)
{
    return truth.settings.video_configuration.empty() &&
           std::none_of(frames.begin(), frames.end(), [](const recovery_frame_t &frame) {
               return frame.type == MUX_TYPE_VIDEO && (frame.flags & MUX_FRAME_KEY) != 0;
           });
}

// Sound frames of two rates can look the same; which one it is shows in their number beside the
// pictures, unless some are missing.
static recorded_settings settings_of_result(const recorded_truth &truth, const recovery_run &run)
{
    recorded_settings settings = truth.settings;
    const recovery_report_t &report = run.report;
    if (report.journal != RECOVERY_JOURNAL_USED && report.sample_rate == 44100 &&
        (report.holes > 0 || run.frames.size() < kFramesForExactTimes)) {
        settings.input.m_iAudioSampleRate = report.sample_rate;
        settings.audio_configuration = {0x12, 0x10};
    }
    return settings;
}

static std::string check_result(const recorded_truth &truth, recovery_run *run)
{
    const std::vector<recovery_frame_t> scanned = std::exchange(run->frames, {});
    const mp4_mux_init_t output = output_of_muxer();
    const int32_t code = recovery_write(&run->input, &output, nullptr, &run->report);
    if (code == RECOVERY_ERR_CONFIGURATION && has_lost_sets(truth, scanned)) {
        return "";
    }
    if (code != RECOVERY_DONE) {
        return "recovery_write returns " + std::to_string(code) + ", " + run->report.message;
    }
    const Bytes result = mux_test::world.files["result.mp4"].bytes;
    mux_test::world.files.erase("result.mp4");
    if (!mux_test::leftovers().empty()) {
        return "the muxer leaves " + mux_test::leftovers();
    }
    run->frames = scanned;
    return difference_of(result,
                         finish_recording(settings_of_result(truth, *run), frames_of_result(*run)));
}

// The result of frames from the first one on, with their times, is that of a normal stop.
static bool is_normal_stop(const recorded_truth &truth, const recovery_run &run)
{
    for (size_t i = 0; i < run.frames.size(); i++) {
        if (run.frames[i].offset != truth.frames[i].offset ||
            run.frames[i].time_ms != truth.frames[i].time_ms) {
            return false;
        }
    }
    return true;
}

// A file with its movie box is finished, whatever its media lacks.
static std::string check_finished(const recorded_truth &truth, const recovery_run &run,
                                  const image_facts &facts, bool may_be_stale,
                                  judge_figures *figures)
{
    const size_t end = static_cast<size_t>(truth.media_end);
    const bool has_head = has_bytes(run.media, 0, truth.finished, 0, kHeadBytes);
    if (!has_head && may_be_stale) { // the begin of another recording, with its movie box
        figures->stale++;
        return "";
    }
    if (!has_head ||
        !has_bytes(run.media, truth.media_end, truth.finished, end, truth.finished.size())) {
        return "takes an unfinished file for a finished one";
    }
    figures->finished_holes +=
        std::count(facts.is_whole.begin(), facts.is_whole.end(), false) > 0 ? 1u : 0u;
    return "";
}

static std::string check_refusal(const recorded_truth &truth, const recovery_run &run,
                                 const image_facts &facts, int32_t code)
{
    bool must_come_back = false;
    for (size_t i = 0; i < truth.frames.size(); i++) {
        must_come_back =
            must_come_back || (facts.is_required[i] && truth.frames[i].type == MUX_TYPE_VIDEO);
    }
    const bool is_expected =
        code == RECOVERY_ERR_NOTHING || (code == RECOVERY_ERR_FORMAT && !facts.has_media_head);
    if (is_expected && !must_come_back) {
        return "";
    }
    return "returns " + std::to_string(code) + ", " + run.report.message;
}

// Of a few journaled frames among those of another recording, no reader can know whose they are.
static void forget_lost_journal(const recovery_run &run, image_facts *facts)
{
    size_t whole = 0;
    for (size_t i = 0; i < facts->is_whole.size(); i++) {
        whole += facts->is_whole[i] && facts->is_journaled[i] ? 1u : 0u;
    }
    if (run.report.journal == RECOVERY_JOURNAL_OTHER_FILE && whole < kTellingFrames) {
        facts->is_journaled.assign(facts->is_whole.size(), false);
        facts->journaled = 0;
        require_frames(facts);
    }
}

std::string judge_image(const recorded_truth &truth, const disk_image &image, bool may_be_stale,
                        judge_figures *figures)
{
    image_facts facts = facts_of(truth, image);
    recovery_run run;
    prepare_run(truth, image, facts.has_journal_head && !may_be_stale, &run);
    const int32_t code = recovery_scan(&run.input, &run.report);
    if (may_be_stale) {
        forget_lost_journal(run, &facts);
    }
    if (code == RECOVERY_ERR_WHOLE) {
        return check_finished(truth, run, facts, may_be_stale, figures);
    }
    if (code != RECOVERY_DONE) {
        return check_refusal(truth, run, facts, code);
    }
    std::vector<bool> is_back;
    const std::string fault = check_frames(truth, run, facts, may_be_stale, &is_back, figures);
    if (!fault.empty()) {
        return fault;
    }
    figures->equal_to_stop += is_normal_stop(truth, run) ? 1u : 0u;
    return check_result(truth, &run);
}

std::string describe_image(const recorded_truth &truth, const disk_image &image)
{
    const image_facts facts = facts_of(truth, image);
    recovery_run run;
    prepare_run(truth, image, facts.has_journal_head, &run);
    const int32_t code = recovery_scan(&run.input, &run.report);
    std::string text = "media " + std::to_string(run.media.size()) + " bytes, head " +
                       (facts.has_media_head ? "whole" : "lost") + "; journal " +
                       std::to_string(run.journal.size()) + " bytes, head " +
                       (facts.has_journal_head ? "whole" : "lost") + "; recovery " +
                       std::to_string(code) + ", journal " + std::to_string(run.report.journal) +
                       ", configuration " + std::to_string(run.report.configuration_from) + ", " +
                       std::to_string(run.report.holes) + " holes\n";
    for (size_t i = 0; i < truth.frames.size(); i++) { // with capitals for journaled frames
        const bool is_picture = truth.frames[i].type == MUX_TYPE_VIDEO;
        const char *const letters = is_picture ? "Pp" : "Ss";
        const char letter = letters[facts.is_journaled[i] ? 0 : 1];
        text += facts.is_whole[i] ? letter : (facts.is_journaled[i] ? ':' : '.');
    }
    return text + "\n";
}

namespace {

// A file that is finished in place, with the trace of what is done to it.
struct traced_target {
    Bytes *media;
    disk_trace trace;
};

} // namespace

static int32_t write_target(void *context, int64_t offset, const void *bytes, int64_t count)
{
    traced_target *const target = static_cast<traced_target *>(context);
    const uint8_t *const from = static_cast<const uint8_t *>(bytes);
    const size_t end = static_cast<size_t>(offset + count);
    target->media->resize(std::max(target->media->size(), end));
    std::copy_n(from, count, target->media->data() + offset);
    target->trace.events.push_back({.call = disk_call::write,
                                    .file = 0,
                                    .offset = offset,
                                    .bytes = Bytes(from, from + count)});
    return 0;
}

static int32_t cut_target(void *context, int64_t bytes)
{
    traced_target *const target = static_cast<traced_target *>(context);
    target->media->resize(static_cast<size_t>(bytes));
    target->trace.events.push_back({.call = disk_call::cut, .file = 0, .offset = bytes});
    return 0;
}

static int32_t sync_target(void *context)
{
    std::vector<disk_event> *const events = &static_cast<traced_target *>(context)->trace.events;
    events->push_back({.call = disk_call::sync, .file = 0, .begun_at = events->size()});
    return 0;
}

static int32_t finish_in_place(recovery_run *run, disk_trace *trace)
{
    traced_target target = {.media = &run->media, .trace = {.names = {"media"}}};
    const recovery_target_t callbacks = {
        .context = &target, .write_at = write_target, .set_size = cut_target, .sync = sync_target};
    const mp4_mux_init_t scratch = output_of_muxer();
    run->frames.clear();
    const int32_t code =
        recovery_in_place(&run->input, &callbacks, &scratch, nullptr, &run->report);
    *trace = target.trace;
    return code;
}

// Recovers what a recovery in place has left, once more in place.
static std::string repeat_in_place(const recorded_truth &truth, const disk_image &image,
                                   const Bytes &expected)
{
    recovery_run run;
    prepare_run(truth, image, facts_of(truth, image).has_journal_head, &run);
    disk_trace trace;
    const int32_t code = finish_in_place(&run, &trace);
    if (code != RECOVERY_DONE && code != RECOVERY_ERR_WHOLE) {
        return "the second recovery in place returns " + std::to_string(code) + ", " +
               run.report.message;
    }
    return difference_of(run.media, expected);
}

static std::string judge_cuts(const recorded_truth &truth, const disk_image &image,
                              const disk_trace &trace, const Bytes &expected,
                              std::minstd_rand *random, judge_figures *figures)
{
    for (size_t events = 0; events < trace.events.size(); events++) {
        const disk_event &next = trace.events[events];
        for (int i = 0; i < 4; i++) { // whole, torn, and in two other orders
            const unsigned seed = static_cast<unsigned>((*random)());
            crash cut = {.events = events};
            if (i == 1 && next.call == disk_call::write) {
                cut.torn_bytes = seed % static_cast<unsigned>(next.bytes.size());
            } else if (i > 1) {
                cut.has_all_sizes = i == 2;
                cut.is_there = [seed](size_t event, int64_t page) {
                    return std::minstd_rand(seed + static_cast<unsigned>(
                                                       event * 977 + static_cast<size_t>(page)))() %
                               64 <
                           32;
                };
            }
            disk_image cut_image = image;
            cut_image[truth.media] = make_disk_image(trace, cut, {image[truth.media]}).front();
            const std::string fault = repeat_in_place(truth, cut_image, expected);
            if (!fault.empty()) {
                return "in place, cut before call " + std::to_string(events) + " of " +
                       std::to_string(trace.events.size()) + ", kind " + std::to_string(i) + ": " +
                       fault;
            }
            figures->in_place_cuts++;
        }
    }
    return "";
}

std::string judge_in_place(const recorded_truth &truth, const disk_image &image,
                           std::minstd_rand *random, judge_figures *figures)
{
    const image_facts facts = facts_of(truth, image);
    recovery_run run;
    prepare_run(truth, image, facts.has_journal_head, &run);
    if (recovery_scan(&run.input, &run.report) != RECOVERY_DONE) {
        return ""; // judged by judge_image
    }
    const bool has_holes = run.report.holes > 0;
    const Bytes expected = finish_recording(truth.settings, frames_of_result(run));
    disk_trace trace;
    const int32_t code = finish_in_place(&run, &trace);
    if (code == RECOVERY_ERR_HOLES && has_holes) {
        return trace.events.empty() ? "" : "a file with holes is changed";
    }
    if (code != RECOVERY_DONE) {
        return "recovery_in_place returns " + std::to_string(code) + ", " + run.report.message;
    }
    const std::string fault = difference_of(run.media, expected);
    return fault.empty() ? judge_cuts(truth, image, trace, expected, random, figures)
                         : "in place: " + fault;
}

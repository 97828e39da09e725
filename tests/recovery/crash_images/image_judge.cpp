#include "tests/recovery/crash_images/image_judge.h"

#include "tests/support/recovery_run.h"

#include <algorithm>

static constexpr size_t kHeadBytes = 36; // of the media, before the first frame
static constexpr uint32_t kTimeErrorMs = 5;
static constexpr size_t kFramesForExactTimes = 60; // in the journal
static constexpr size_t kTellingFrames = 3;        // in the journal: they show whose it is

static const Bytes kSilence = {0x20, 0, 0, 0, 0, 0, 0x0E};

namespace {

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
    for (const muxed_frame &frame : truth.frames) {
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

// Where the journal shows the configuration, the caller gives none.
static interrupted_files files_of(const recorded_truth &truth, const disk_image &image,
                                  bool shows_all)
{
    interrupted_files files = {.media = file_of(image, truth.media),
                               .journal = image[truth.journal]};
    for (size_t i = 0; i < RECOVERY_TABLE_COUNT; i++) {
        files.tables[i] = file_of(image, truth.tables[i]);
    }
    if (!shows_all) {
        files.configuration = truth.settings.video_configuration;
    }
    return files;
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
                              const recovery_frame_t &frame, bool has_holes)
{
    const uint32_t expected_ms = truth.frames[i].time_ms;
    const uint32_t error_ms =
        std::max(frame.time_ms, expected_ms) - std::min(frame.time_ms, expected_ms);
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
static std::string check_frames(const recorded_truth &truth, const recovered &run,
                                const image_facts &facts, bool may_be_stale, judge_figures *figures)
{
    std::vector<bool> is_back(truth.frames.size());
    for (const recovery_frame_t &frame : run.frames) {
        const auto found = std::lower_bound(
            truth.frames.begin(), truth.frames.end(), frame.offset,
            [](const muxed_frame &a, int64_t offset) { return a.offset < offset; });
        const size_t i = static_cast<size_t>(found - truth.frames.begin());
        if (found == truth.frames.end() || found->offset != frame.offset ||
            static_cast<int32_t>(found->bytes.size()) != frame.size || found->type != frame.type) {
            if (!may_be_stale || frame.is_journaled != 0) {
                return describe("an invented frame", frame);
            }
            continue;
        }
        if (is_back[i]) {
            return describe("a frame that comes back twice", frame);
        }
        is_back[i] = true;
        const bool is_mixed = !facts.is_whole[i];
        if (is_mixed && !may_be_stale) {
            return describe("a frame that lacks bytes", frame);
        }
        if (!is_mixed && frame.flags != found->flags) {
            return describe("wrong flags", frame);
        }
        const std::string fault = check_time(truth, facts, i, frame, run.report.holes > 0);
        if (!fault.empty()) {
            return fault;
        }
        figures->frames++;
    }
    for (size_t i = 0; i < truth.frames.size(); i++) {
        if (facts.is_required[i] && !is_back[i] && !is_silence(truth, i)) {
            return "frame " + std::to_string(i) + " of " + std::to_string(truth.frames.size()) +
                   " does not come back";
        }
    }
    return "";
}

// returns: the frames as they must be in the result
static std::vector<muxed_frame> frames_of_result(const recovered &run, const Bytes &media)
{
    std::vector<muxed_frame> frames;
    for (const recovery_frame_t &frame : run.frames) {
        const uint8_t *const begin = media.data() + frame.offset;
        frames.push_back({.type = frame.type,
                          .flags = frame.flags,
                          .time_ms = frame.time_ms,
                          .offset = frame.offset,
                          .bytes = Bytes(begin, begin + frame.size)});
    }
    return frames;
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
static muxer_settings settings_of_result(const recorded_truth &truth, const recovered &run)
{
    muxer_settings settings = truth.settings;
    const recovery_report_t &report = run.report;
    if (report.journal != RECOVERY_JOURNAL_USED && report.sample_rate == 44100 &&
        (report.holes > 0 || run.frames.size() < kFramesForExactTimes)) {
        settings.input.m_iAudioSampleRate = report.sample_rate;
        settings.audio_configuration = {0x12, 0x10};
    }
    return settings;
}

static std::string check_result(const recorded_truth &truth, const interrupted_files &files,
                                const recovered &scanned)
{
    const recovered result = recover_files(files);
    if (result.code == RECOVERY_ERR_CONFIGURATION && has_lost_sets(truth, scanned.frames)) {
        return "";
    }
    if (result.code != RECOVERY_DONE) {
        return "recovery_write returns " + std::to_string(result.code) + ", " +
               result.report.message;
    }
    return difference_of(result.file, normal_stop(settings_of_result(truth, result),
                                                  frames_of_result(scanned, files.media)));
}

// A file with its movie box is finished, whatever its media lacks.
static std::string check_finished(const recorded_truth &truth, const Bytes &media,
                                  bool may_be_stale)
{
    const size_t end = static_cast<size_t>(truth.media_end);
    const bool has_head = has_bytes(media, 0, truth.finished, 0, kHeadBytes);
    if (!has_head && may_be_stale) { // the begin of another recording, with its movie box
        return "";
    }
    if (!has_head ||
        !has_bytes(media, truth.media_end, truth.finished, end, truth.finished.size())) {
        return "takes an unfinished file for a finished one";
    }
    return "";
}

static std::string check_refusal(const recorded_truth &truth, const recovered &run,
                                 const image_facts &facts)
{
    bool must_come_back = false;
    for (size_t i = 0; i < truth.frames.size(); i++) {
        must_come_back =
            must_come_back || (facts.is_required[i] && truth.frames[i].type == MUX_TYPE_VIDEO);
    }
    const bool is_expected = run.code == RECOVERY_ERR_NOTHING ||
                             (run.code == RECOVERY_ERR_FORMAT && !facts.has_media_head);
    if (is_expected && !must_come_back) {
        return "";
    }
    return "returns " + std::to_string(run.code) + ", " + run.report.message;
}

// Of a few journaled frames among those of another recording, no reader can know whose they are.
static void forget_lost_journal(const recovered &run, image_facts *facts)
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
    const interrupted_files files = files_of(truth, image, facts.has_journal_head && !may_be_stale);
    const recovered run = scan_files(files);
    if (may_be_stale) {
        forget_lost_journal(run, &facts);
    }
    if (run.code == RECOVERY_ERR_WHOLE) {
        return check_finished(truth, files.media, may_be_stale);
    }
    if (run.code != RECOVERY_DONE) {
        return check_refusal(truth, run, facts);
    }
    const std::string fault = check_frames(truth, run, facts, may_be_stale, figures);
    return fault.empty() ? check_result(truth, files, run) : fault;
}

std::string judge_in_place(const recorded_truth &truth, const disk_image &image,
                           judge_figures *figures)
{
    const interrupted_files left = files_of(truth, image, facts_of(truth, image).has_journal_head);
    const recovered scanned = scan_files(left);
    if (scanned.code != RECOVERY_DONE) {
        return ""; // judged by judge_image
    }
    const Bytes expected = normal_stop(truth.settings, frames_of_result(scanned, left.media));
    int32_t code = RECOVERY_ERR_WRITE;
    for (size_t calls = 1; code == RECOVERY_ERR_WRITE; calls++) {
        interrupted_files files = left;
        code = recover_in_place(&files, calls).code;
        if (code == RECOVERY_ERR_HOLES && scanned.report.holes > 0) {
            return files.media == left.media ? "" : "a file with holes is changed";
        }
        const std::string fault = difference_of(recover_in_place(&files).file, expected);
        if (!fault.empty()) {
            return "in place, cut at call " + std::to_string(calls) + ": " + fault;
        }
        figures->in_place_cuts++;
    }
    return code == RECOVERY_DONE ? "" : "recovery_in_place returns " + std::to_string(code);
}

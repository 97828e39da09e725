#include "client/recover_report.h"

#include "client/input/shell_word.h"
#include "client/report/figures.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using json = nlohmann::ordered_json;

static constexpr size_t kHolesShown = 10;

static double seconds(uint32_t time_ms)
{
    return time_ms / 1000.0;
}

static std::string count_text(uint64_t count, const char *name)
{
    return std::to_string(count) + " " + name + (count == 1 ? "" : "s");
}

static std::string place_text(const recover_hole &hole)
{
    return format_text("%lld bytes at %lld, after %s", static_cast<long long>(hole.bytes),
                       static_cast<long long>(hole.offset),
                       duration_text(seconds(hole.after_ms)).c_str());
}

static std::string frame_rate_text(const recovery_report_t &report)
{
    return report.frame_rate_den == 0
               ? ""
               : format_text(" of %.2f pictures a second",
                             static_cast<double>(report.frame_rate_num) / report.frame_rate_den);
}

static std::string times_text(const recovery_report_t &report)
{
    const uint64_t frames = uint64_t{report.pictures} + report.sounds;
    const uint64_t rest = frames - std::min<uint64_t>(frames, report.journaled_frames);
    if (report.journaled_frames == 0) {
        return report.times_from == RECOVERY_FROM_TABLES
                   ? "exact, from the recorder's scratch files"
                   : "of a steady rate" + frame_rate_text(report);
    }
    return "exact, from the journal" +
           (rest == 0 ? ""
                      : "; " + count_text(rest, "frame") + " without a record at a steady rate" +
                            frame_rate_text(report));
}

std::string recover_journal_flaw(const recovery_report_t &report)
{
    switch (report.journal) {
    case RECOVERY_JOURNAL_DAMAGED:
        return "damaged; not used";
    case RECOVERY_JOURNAL_OTHER_VERSION:
        return format_text("of version %u, which this command does not read; not used",
                           report.journal_version);
    case RECOVERY_JOURNAL_OTHER_FILE:
        return "of another recording; not used";
    default:
        return "";
    }
}

static std::string journal_text(const recovery_report_t &report)
{
    const std::string flaw = recover_journal_flaw(report);
    return flaw.empty() ? "" : "  Journal   " + flaw + "\n";
}

static std::string holes_text(const recover_outcome &outcome)
{
    std::string text;
    for (size_t i = 0; i < std::min(outcome.holes.size(), kHolesShown); i++) {
        text += "  Hole      " + place_text(outcome.holes[i]) + "\n";
    }
    if (outcome.holes.size() > kHolesShown) {
        text += "  Holes     " + std::to_string(outcome.holes.size() - kHolesShown) +
                " more (--json lists all)\n";
    }
    return text;
}

// What the user does next.
static std::string advice_text(const recover_outcome &outcome)
{
    if (outcome.left.empty()) {
        return "";
    }
    return outcome.is_in_place
               ? "  Next      move " + shell_word(outcome.output) + " to where it is wanted\n"
               : "  Next      delete " + shell_word(outcome.left) + " when the file plays\n";
}

std::string recover_text(const recover_outcome &outcome)
{
    const recovery_report_t &report = outcome.report;
    const double duration_s = outcome.file ? outcome.file->duration_s : seconds(report.last_ms);
    const uint64_t bytes = outcome.file ? outcome.file->bytes : 0;
    const std::string from = outcome.is_in_place ? "" : ", from " + outcome.source;
    std::string text = outcome.output + ": " + duration_text(duration_s) + ", " + size_text(bytes) +
                       format_text(" (%llu bytes)", static_cast<unsigned long long>(bytes)) + from +
                       "\n";
    text += "  Frames    " + count_text(report.pictures, "picture") + " and " +
            count_text(report.sounds, "sound frame") +
            format_text(", %lld of the %lld bytes on the disk\n",
                        static_cast<long long>(report.media_bytes),
                        static_cast<long long>(report.file_bytes));
    text += "  Decoder   configuration from " + outcome.configuration +
            (outcome.is_guess ? ": size, brightness and colours may be wrong" : "") + "\n";
    text += "  Times     " + times_text(report) + "\n" + journal_text(report);
    if (outcome.end) {
        text += "  Cut       " + outcome.end_kind + ", " + place_text(*outcome.end) + "\n";
    }
    return text + holes_text(outcome) + advice_text(outcome);
}

static const char *from_name(int32_t from)
{
    static constexpr const char *kNames[] = {"nothing", "journal", "tables", "media", "caller"};
    return from >= 0 && from < static_cast<int32_t>(std::size(kNames)) ? kNames[from] : "unknown";
}

static const char *journal_name(int32_t state)
{
    static constexpr const char *kNames[] = {"none", "used", "damaged", "other version",
                                             "other file"};
    return state >= 0 && state < static_cast<int32_t>(std::size(kNames)) ? kNames[state]
                                                                         : "unknown";
}

static json hole_json(const recover_hole &hole)
{
    return {
        {"offset", hole.offset}, {"bytes", hole.bytes}, {"after_seconds", seconds(hole.after_ms)}};
}

static json times_json(const recovery_report_t &report)
{
    json times = {{"from", from_name(report.times_from)}};
    if (report.frame_rate_den != 0) {
        times["frame_rate"] =
            std::to_string(report.frame_rate_num) + "/" + std::to_string(report.frame_rate_den);
    }
    return times;
}

static json outcome_json(const recover_outcome &outcome)
{
    const recovery_report_t &report = outcome.report;
    json object = {{"source", outcome.source},
                   {"output", outcome.output.empty() ? json(nullptr) : json(outcome.output)},
                   {"in_place", outcome.is_in_place},
                   {"exit_status", outcome.status}};
    if (!outcome.error.empty()) {
        object["error"] = outcome.error;
    }
    if (outcome.file) {
        object["duration_seconds"] = outcome.file->duration_s;
        object["bytes"] = outcome.file->bytes;
    }
    object["pictures"] = report.pictures;
    object["sounds"] = report.sounds;
    object["media_bytes"] = report.media_bytes;
    object["source_bytes"] = report.file_bytes;
    object["journal"] = {{"state", journal_name(report.journal)},
                         {"frames", report.journaled_frames}};
    if (report.journal == RECOVERY_JOURNAL_OTHER_VERSION) {
        object["journal"]["version"] = report.journal_version;
    }
    object["configuration"] = {{"from", outcome.configuration}, {"is_guess", outcome.is_guess}};
    object["times"] = times_json(report);
    object["sample_rate"] = report.sample_rate;
    object["channels"] = report.channels;
    object["cut"] = outcome.end ? hole_json(*outcome.end) : json(nullptr);
    if (outcome.end) {
        object["cut"]["kind"] = outcome.end_kind;
    }
    object["hole_bytes"] = report.hole_bytes;
    object["holes"] = json::array();
    for (const recover_hole &hole : outcome.holes) {
        object["holes"].push_back(hole_json(hole));
    }
    object["warnings"] = outcome.remarks;
    return object;
}

std::string recover_json(const std::vector<recover_outcome> &outcomes, const std::string &error,
                         int status)
{
    json object = {{"recordings", json::array()}};
    if (!error.empty()) {
        object["error"] = error;
    }
    object["exit_status"] = status;
    for (const recover_outcome &outcome : outcomes) {
        object["recordings"].push_back(outcome_json(outcome));
    }
    return object.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

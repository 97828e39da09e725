#include "client/summary.h"

#include "client/report/figures.h"

#include <cmath>
#include <nlohmann/json.hpp>

static double bit_rate(uint64_t bytes, double duration_s)
{
    return duration_s > 0 ? static_cast<double>(bytes) * 8 / duration_s : 0;
}

static std::string track_text(const char *name, const track_summary &track, double duration_s)
{
    return format_text("  %s  %llu frames, %.0f kbit/s\n", name,
                       static_cast<unsigned long long>(track.frames),
                       bit_rate(track.bytes, duration_s) / 1000);
}

static std::string state_text(const loss_account &losses)
{
    const std::string missing = loss_account_text(losses);
    return std::string("  State  ") + loss_verdict(losses) +
           (missing.empty() ? "" : ": " + missing) + "\n";
}

static double seconds(int64_t time_us)
{
    return static_cast<double>(time_us) / 1e6;
}

static void add_losses(nlohmann::ordered_json &json, const loss_account &losses)
{
    json["verdict"] = loss_verdict(losses);
    json["lost_seconds"] = {
        {"video", seconds(loss_account_missing(losses, loss_track::video).length_us)},
        {"audio", seconds(loss_account_missing(losses, loss_track::audio).length_us)}};
    json["losses"] = nlohmann::ordered_json::array();
    for (const loss &one : losses.entries) {
        json["losses"].push_back({{"track", loss_track_name(one.track)},
                                  {"at_seconds", seconds(one.at_us)},
                                  {"seconds", seconds(one.length_us)},
                                  {"what", loss_what(one.kind)},
                                  {"done", loss_done(one.kind)},
                                  {"units", one.units}});
    }
    if (losses.unlisted > 0) {
        json["losses_not_listed"] = losses.unlisted;
    }
}

std::string summary_text(const recording_summary &summary)
{
    if (!summary.file) {
        return "No file was made: " + summary.ended + ".\n";
    }
    const file_summary &file = *summary.file;
    const double speed = summary.elapsed_s > 0 ? file.duration_s / summary.elapsed_s : 0;
    return summary.output + ": " + duration_text(file.duration_s) + ", " + size_text(file.bytes) +
           format_text(" (%llu bytes)\n", static_cast<unsigned long long>(file.bytes)) +
           track_text("Video", file.video, file.duration_s) +
           track_text("Audio", file.audio, file.duration_s) + state_text(summary.losses) +
           "  Ended  " + summary.ended +
           format_text("; took %.1f s, %.1f times real time\n", summary.elapsed_s, speed);
}

std::string summary_json(const recording_summary &summary)
{
    nlohmann::ordered_json json;
    json["output"] = summary.file ? nlohmann::ordered_json(summary.output) : nullptr;
    json["ended"] = summary.ended;
    json["stop_reason"] =
        summary.stop_reason ? nlohmann::ordered_json(*summary.stop_reason) : nullptr;
    json["exit_status"] = summary.status;
    if (!summary.error.empty()) {
        json["error"] = summary.error;
    }
    if (!summary.kept.empty()) {
        json["kept"] = summary.kept;
    }
    if (summary.file) {
        const file_summary &file = *summary.file;
        const auto track = [&](const track_summary &of) {
            return nlohmann::ordered_json{
                {"frames", of.frames},
                {"bytes", of.bytes},
                {"bits_per_second", std::llround(bit_rate(of.bytes, file.duration_s))}};
        };
        json["duration_seconds"] = file.duration_s;
        json["bytes"] = file.bytes;
        json["video"] = track(file.video);
        json["audio"] = track(file.audio);
        add_losses(json, summary.losses);
    }
    json["elapsed_seconds"] = std::round(summary.elapsed_s * 1000) / 1000;
    json["warnings"] = summary.remarks;
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

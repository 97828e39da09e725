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
           track_text("Audio", file.audio, file.duration_s) + "  Ended  " + summary.ended +
           "; took " + elapsed_text(summary.elapsed_s) +
           format_text(", %.1f times real time\n", speed);
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
    }
    json["elapsed_seconds"] = std::round(summary.elapsed_s * 1000) / 1000;
    json["warnings"] = summary.remarks;
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

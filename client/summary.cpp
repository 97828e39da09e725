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
    return format_text("  %s  %llu frame%s, %.0f kbit/s\n", name,
                       static_cast<unsigned long long>(track.frames), track.frames == 1 ? "" : "s",
                       bit_rate(track.bytes, duration_s) / 1000);
}

// returns: the finished files in their order
static std::vector<recorded_file> finished_files(const recording_summary &summary)
{
    std::vector<recorded_file> files = summary.earlier;
    if (summary.file) {
        files.push_back({summary.output, summary.begin_s, *summary.file, summary.losses});
    }
    return files;
}

static file_summary sum_of(const std::vector<recorded_file> &files)
{
    file_summary sum;
    for (const recorded_file &one : files) {
        sum.bytes += one.file.bytes;
        sum.duration_s += one.file.duration_s;
        sum.video.frames += one.file.video.frames;
        sum.video.bytes += one.file.video.bytes;
        sum.audio.frames += one.file.audio.frames;
        sum.audio.bytes += one.file.audio.bytes;
    }
    return sum;
}

// returns: the account of all files, with times from the programme's begin
static loss_account losses_of(const std::vector<recorded_file> &files)
{
    if (files.size() == 1) {
        return files.front().losses;
    }
    loss_account sum;
    for (const recorded_file &file : files) {
        for (loss one : file.losses.entries) {
            one.at_us += std::llround(file.begin_s * 1e6);
            loss_account_add(sum, one);
        }
        loss_account_add_unlisted(sum, file.losses);
    }
    return sum;
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

static void put_losses(nlohmann::ordered_json &json, const loss_account &losses)
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
    const std::vector<recorded_file> files = finished_files(summary);
    if (files.empty()) {
        return "No file was made: " + summary.ended + ".\n";
    }
    std::string text;
    for (const recorded_file &one : files) {
        const bool is_marked = files.size() > 1 && !loss_account_is_complete(one.losses);
        text += one.output + ": " + duration_text(one.file.duration_s) + ", " +
                size_text(one.file.bytes) +
                format_text(" (%llu bytes)%s\n", static_cast<unsigned long long>(one.file.bytes),
                            is_marked ? ", damaged" : "");
    }
    const file_summary sum = sum_of(files);
    const double speed = summary.elapsed_s > 0 ? sum.duration_s / summary.elapsed_s : 0;
    return text + track_text("Video", sum.video, sum.duration_s) +
           track_text("Audio", sum.audio, sum.duration_s) + state_text(losses_of(files)) +
           "  Ended  " + summary.ended + "; took " + elapsed_text(summary.elapsed_s) +
           format_text(", %.1f times real time\n", speed);
}

static nlohmann::ordered_json track_json(const track_summary &track, double duration_s)
{
    return {{"frames", track.frames},
            {"bytes", track.bytes},
            {"bits_per_second", std::llround(bit_rate(track.bytes, duration_s))}};
}

static void put_contents(nlohmann::ordered_json &json, const file_summary &file)
{
    json["duration_seconds"] = file.duration_s;
    json["bytes"] = file.bytes;
    json["video"] = track_json(file.video, file.duration_s);
    json["audio"] = track_json(file.audio, file.duration_s);
}

static nlohmann::ordered_json files_json(const std::vector<recorded_file> &files)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const recorded_file &one : files) {
        nlohmann::ordered_json json;
        json["output"] = one.output;
        json["begin_seconds"] = one.begin_s;
        put_contents(json, one.file);
        put_losses(json, one.losses);
        list.push_back(std::move(json));
    }
    return list;
}

std::string summary_json(const recording_summary &summary)
{
    const std::vector<recorded_file> files = finished_files(summary);
    nlohmann::ordered_json json;
    json["output"] = files.empty() ? nullptr : nlohmann::ordered_json(files.front().output);
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
    if (!files.empty()) {
        put_contents(json, sum_of(files));
        put_losses(json, losses_of(files));
        json["files"] = files_json(files);
    }
    json["elapsed_seconds"] = std::round(summary.elapsed_s * 1000) / 1000;
    json["warnings"] = summary.remarks;
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

#include "client/report/info_text.h"

#include "client/report/figures.h"

#include <cmath>
#include <nlohmann/json.hpp>

// More gaps than these are only counted.
static constexpr size_t kGapsListed = 10;

std::string track_text(const track_report &track)
{
    if (track.kind == "Video") {
        return track.coding + format_text(", %ux%u", track.width, track.height);
    }
    if (track.kind == "Audio") {
        const std::string channels = track.channels == 1 ? "mono"
                                     : track.channels == 2
                                         ? "stereo"
                                         : format_text("%u channels", track.channels);
        return track.coding + format_text(", %u Hz, ", track.sample_rate) + channels;
    }
    return track.coding;
}

std::string lead_text(const lead_range &lead)
{
    const long low = std::lround(lead.low_s * 1000);
    const long high = std::lround(lead.high_s * 1000);
    if (low < 0 && high > 0) {
        return format_text("sound from %ld ms after to %ld ms before its picture", -low, high);
    }
    return high <= 0 ? format_text("sound %ld to %ld ms after its picture", -high, -low)
                     : format_text("sound %ld to %ld ms before its picture", low, high);
}

// returns: a line for each gap
static std::string gap_lines(const char *name, const std::vector<time_gap> &gaps)
{
    std::string text;
    double sum_s = 0;
    for (size_t i = 0; i < gaps.size(); i++) {
        sum_s += gaps[i].length_s;
        if (i < kGapsListed) {
            text += "           " + (name + format_text(" of %.3f s at ", gaps[i].length_s)) +
                    duration_text(gaps[i].begin_s) + "\n";
        }
    }
    if (gaps.size() > kGapsListed) {
        text += format_text("           %zu times %s in all, %.3f s\n", gaps.size(), name, sum_s);
    }
    return text;
}

static std::string describe_track(const track_report &track, size_t number)
{
    std::string text = format_text("  Track %zu  ", number) + track.kind + ", " +
                       track_text(track) + "\n           " +
                       format_text("%llu frame%s", static_cast<unsigned long long>(track.frames),
                                   track.frames == 1 ? "" : "s");
    if (track.frame_s > 0) {
        text += format_text(" at %.2f a second", 1 / track.frame_s);
    }
    text += ", " + duration_text(track.duration_s) +
            format_text(", %.0f kbit/s, at most %.0f\n", track.bit_rate / 1000,
                        track.bit_rate_max / 1000);
    if (!track.keys_s.empty()) {
        text +=
            format_text("           %zu key frame%s", track.keys_s.size(),
                        track.keys_s.size() == 1 ? "" : "s") +
            (track.key_distance_s > 0 ? format_text(", at most %.2f s apart", track.key_distance_s)
                                      : "") +
            "\n";
    }
    return text + gap_lines("gap", track.gaps) + gap_lines("silence", track.silences);
}

std::string info_text(const media_report &report)
{
    std::string text = report.path + ": " + duration_text(report.duration_s) + ", " +
                       size_text(report.bytes) +
                       format_text(" (%llu bytes)", static_cast<unsigned long long>(report.bytes)) +
                       (report.created.empty() ? "" : ", made " + report.created) + "\n";
    for (size_t i = 0; i < report.tracks.size(); i++) {
        text += describe_track(report.tracks[i], i + 1);
    }
    if (const std::optional<lead_range> lead = whole_lead(report)) {
        text += "  Order    interleaving: " + lead_text(*lead) + "\n";
    }
    text += report.fragments > 0 ? format_text("  Parts    %llu fragments\n",
                                               static_cast<unsigned long long>(report.fragments))
                                 : "  State    " + state_text(report) + "\n";
    for (const std::string &remark : report.remarks) {
        text += "  Note     " + remark + "\n";
    }
    for (const std::string &fault : report.faults) {
        text += "  Fault    " + fault + "\n";
    }
    return text + (report.faults.empty() ? "  No fault found.\n" : "");
}

static nlohmann::ordered_json gaps_json(const std::vector<time_gap> &gaps)
{
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (const time_gap &gap : gaps) {
        json.push_back({{"begin_seconds", gap.begin_s}, {"length_seconds", gap.length_s}});
    }
    return json;
}

static nlohmann::ordered_json track_json(const track_report &track)
{
    nlohmann::ordered_json json = {{"kind", track.kind}, {"coding", track.coding}};
    if (track.kind == "Video") {
        json["width"] = track.width;
        json["height"] = track.height;
    } else if (track.kind == "Audio") {
        json["sample_rate"] = track.sample_rate;
        json["channels"] = track.channels;
    }
    json["frames"] = track.frames;
    json["bytes"] = track.bytes;
    json["duration_seconds"] = track.duration_s;
    json["frame_seconds"] = track.frame_s;
    json["bits_per_second"] = std::llround(track.bit_rate);
    json["most_bits_per_second"] = std::llround(track.bit_rate_max);
    if (!track.keys_s.empty()) {
        json["key_frames"] = track.keys_s.size();
        json["longest_key_frame_distance_seconds"] = track.key_distance_s;
    }
    json["gaps"] = gaps_json(track.gaps);
    if (track.kind == "Audio") {
        json["silences"] = gaps_json(track.silences);
    }
    return json;
}

std::string info_json(const media_report &report)
{
    nlohmann::ordered_json json;
    json["file"] = report.path;
    json["bytes"] = report.bytes;
    json["duration_seconds"] = report.duration_s;
    json["created"] = report.created.empty() ? nullptr : nlohmann::ordered_json(report.created);
    json["tracks"] = nlohmann::ordered_json::array();
    for (const track_report &track : report.tracks) {
        json["tracks"].push_back(track_json(track));
    }
    if (const std::optional<lead_range> lead = whole_lead(report)) {
        json["interleaving_seconds"] = {{"least", lead->low_s}, {"most", lead->high_s}};
    }
    if (report.fragments > 0) {
        json["fragments"] = report.fragments;
    } else {
        json["verdict"] = is_damaged(report) ? "damaged" : "complete";
        json["sound_after_pictures_seconds"] = report.ends_apart_s;
    }
    json["notes"] = report.remarks;
    json["faults"] = report.faults;
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

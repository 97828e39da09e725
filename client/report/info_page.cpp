#include "client/report/info_page.h"

#include "client/report/figures.h"
#include "client/report/html_text.h"
#include "client/report/info_text.h"
#include "client/report/time_chart.h"

#include <algorithm>
#include <filesystem>

// The page lists this many gaps at most, and a chart shows about as many marks as it has pixels.
static constexpr size_t kGapsListed = 50;
static constexpr size_t kMarksPerChart = 600;

// In pixels.
static constexpr double kRateChartHeight = 200, kLeadChartHeight = 140, kKeyChartHeight = 44;

static const char style_sheet[] = R"(
:root { color-scheme: light dark;
  --paper: #f6f7f8; --card: #ffffff; --ink: #1d2329; --quiet: #5d6873; --line: #e2e6ea;
  --axis: #a9b2bb; --video: #3b6fb5; --audio: #2f9484; --good: #22784b; --bad: #b3382c; }
@media (prefers-color-scheme: dark) { :root {
  --paper: #14171a; --card: #1c2024; --ink: #e4e8ec; --quiet: #98a3ae; --line: #2c3238;
  --axis: #59636d; --video: #6b9ee0; --audio: #4dbba8; --good: #63c08d; --bad: #ec7d70; } }
body { margin: 0; background: var(--paper); color: var(--ink);
  font: 15px/1.5 system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; }
main { max-width: 1000px; margin: 0 auto; padding: 32px 20px 48px; }
h1 { font-size: 24px; line-height: 1.25; margin: 0 0 4px; overflow-wrap: anywhere; }
h2 { font-size: 16px; margin: 0 0 2px; }
p { margin: 0; }
.quiet { color: var(--quiet); }
.verdict { font-weight: 600; margin: 8px 0 24px; }
.good { color: var(--good); }
.bad { color: var(--bad); }
section { background: var(--card); border: 1px solid var(--line); border-radius: 10px;
  padding: 16px 20px; margin: 0 0 16px; }
ul { margin: 4px 0 0; padding-left: 20px; }
li { overflow-wrap: anywhere; }
.wide { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: 7px 16px 7px 0; border-top: 1px solid var(--line);
  vertical-align: top; }
tr:first-child > * { border-top: 0; }
th { font-weight: 500; color: var(--quiet); white-space: nowrap; }
td { font-variant-numeric: tabular-nums; width: 50%; }
.whole { white-space: nowrap; }
.chart { margin-top: 8px; padding: 0 24px 0 52px; }
svg { display: block; width: 100%; overflow: visible; }
svg text { font-size: 12px; fill: var(--quiet); }
.grid { stroke: var(--line); }
.axis, .zero { stroke: var(--axis); }
svg rect { shape-rendering: crispEdges; }
.video { fill: var(--video); }
.audio { fill: var(--audio); }
.gap { fill: var(--bad); stroke: var(--bad); }
.key { stroke: var(--video); stroke-width: 1.5; }
.swatch { display: inline-block; width: 10px; height: 10px; border-radius: 3px;
  margin: 0 6px 0 0; }
.legend span { margin-right: 18px; }
@media (max-width: 600px) {
  main { padding: 20px 12px 28px; }
  section { padding: 14px; }
  th, td { padding-right: 10px; }
  .dense { display: none; } }
)";

static std::string count_text(size_t count, const std::string &one, const std::string &many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string verdict_text(const media_report &report)
{
    const std::string faults = report.faults.empty()
                                   ? "no fault found"
                                   : count_text(report.faults.size(), "fault", "faults") + " found";
    return report.fragments > 0 ? faults : faults + "; " + state_text(report);
}

static std::string section(const std::string &title, const std::string &note,
                           const std::string &content)
{
    return "<section>\n<h2>" + title + "</h2>\n" +
           (note.empty() ? "" : "<p class=\"quiet\">" + note + "</p>\n") + content + "</section>\n";
}

static std::string list(const std::string &title, const std::vector<std::string> &items)
{
    if (items.empty()) {
        return "";
    }
    std::string content = "<ul>\n";
    for (const std::string &item : items) {
        content += "<li>" + html_text(item) + "</li>\n";
    }
    return section(title, "", content + "</ul>\n");
}

static std::string row(const std::string &name, const std::vector<std::string> &values)
{
    std::string text = "<tr><th scope=\"row\">" + name + "</th>";
    for (const std::string &value : values) {
        text += "<td>" + html_text(value) + "</td>";
    }
    return text + "</tr>\n";
}

// One column for each track.
static std::string track_table(const media_report &report)
{
    std::vector<std::string> coding, frames, length, rate, keys, gaps, silences;
    std::string names = "<tr><th></th>";
    for (const track_report &track : report.tracks) {
        names += "<th scope=\"col\">" + format_text("Track %zu: ", gaps.size() + 1) +
                 html_text(track.kind) + "</th>";
        coding.push_back(track_text(track));
        frames.push_back(
            format_text("%llu", static_cast<unsigned long long>(track.frames)) +
            (track.frame_s > 0 ? format_text(", %.2f a second", 1 / track.frame_s) : ""));
        length.push_back(duration_text(track.duration_s));
        rate.push_back(format_text("%.0f kbit/s, at most %.0f", track.bit_rate / 1000,
                                   track.bit_rate_max / 1000));
        keys.push_back(
            (track.keys_s.empty() ? "every frame" : std::to_string(track.keys_s.size())) +
            (track.key_distance_s > 0 ? format_text(", at most %.2f s apart", track.key_distance_s)
                                      : ""));
        gaps.push_back(track.gaps.empty() ? "none" : std::to_string(track.gaps.size()));
        silences.push_back(track.kind != "Audio"    ? ""
                           : track.silences.empty() ? "none"
                                                    : std::to_string(track.silences.size()));
    }
    return section("Tracks", "",
                   "<div class=\"wide\"><table>\n" + names + "</tr>\n" + row("Coding", coding) +
                       row("Frames", frames) + row("Length", length) + row("Bit rate", rate) +
                       row("Key frames", keys) + row("Gaps", gaps) + row("Silence", silences) +
                       "</table></div>\n");
}

static std::string span_text(double begin_s, double end_s)
{
    return duration_text(begin_s) + " to " + duration_text(end_s) + ": ";
}

static std::string rate_chart(const media_report &report)
{
    const track_report *const video = find_track(report, "Video");
    const track_report *const audio = find_track(report, "Audio");
    const auto rate = [](const track_report *track, size_t bin) {
        return track != nullptr && bin < track->rates.size() ? track->rates[bin] / 1000 : 0;
    };
    const size_t bins = std::max(video != nullptr ? video->rates.size() : 0,
                                 audio != nullptr ? audio->rates.size() : 0);
    double highest = 0;
    for (size_t bin = 0; bin < bins; bin++) {
        highest = std::max(highest, rate(audio, bin) + rate(video, bin));
    }
    time_chart chart = time_chart_open(report.duration_s, 0, highest, kRateChartHeight);
    for (size_t bin = 0; bin < bins; bin++) {
        const double begin_s = static_cast<double>(bin) * report.bin_s;
        const double end_s = std::min(begin_s + report.bin_s, report.duration_s);
        const double audio_rate = rate(audio, bin), video_rate = rate(video, bin);
        const std::string tip =
            span_text(begin_s, end_s) +
            format_text("video %.0f, audio %.0f kbit/s", video_rate, audio_rate);
        if (audio_rate > 0) {
            time_chart_bar(chart, "audio", begin_s, end_s, 0, audio_rate, tip);
        }
        if (video_rate > 0) {
            time_chart_bar(chart, "video", begin_s, end_s, audio_rate, audio_rate + video_rate,
                           tip);
        }
    }
    return section(
        "Bit rate", format_text("in kbit/s, over %.0f s each", report.bin_s),
        time_chart_svg(chart, "Bit rate over time") +
            "<p class=\"legend quiet\"><span><i class=\"swatch\" style=\"background:"
            "var(--video)\"></i>video</span><span><i class=\"swatch\" style=\"background:"
            "var(--audio)\"></i>audio</span></p>\n");
}

static std::string lead_chart(const media_report &report)
{
    const std::optional<lead_range> whole = whole_lead(report);
    if (!whole) {
        return "";
    }
    time_chart chart = time_chart_open(report.duration_s, std::min(whole->low_s * 1000, 0.0),
                                       std::max(whole->high_s * 1000, 0.0), kLeadChartHeight);
    for (size_t i = 0; i < report.leads.size(); i++) {
        const lead_range &lead = report.leads[i];
        const double next_s =
            i + 1 < report.leads.size() ? report.leads[i + 1].time_s : report.duration_s;
        const double end_s = std::min(next_s, lead.time_s + report.bin_s);
        time_chart_bar(chart, "audio", lead.time_s, end_s, lead.low_s * 1000, lead.high_s * 1000,
                       span_text(lead.time_s, end_s) + lead_text(lead));
    }
    time_chart_level(chart, "zero", 0);
    return section("Interleaving",
                   "by how many milliseconds the sound next to each picture in the file is later "
                   "than it; this is the order of writing, not of playing",
                   time_chart_svg(chart, "Interleaving of sound and pictures over time"));
}

static std::string gap_table(const media_report &report)
{
    std::string rows;
    size_t all = 0;
    const auto add = [&](const std::string &name, const std::vector<time_gap> &gaps) {
        for (const time_gap &gap : gaps) {
            if (all++ < kGapsListed) {
                rows +=
                    row(name, {duration_text(gap.begin_s), format_text("%.3f s", gap.length_s)});
            }
        }
    };
    for (const track_report &track : report.tracks) {
        add(html_text(track.kind), track.gaps);
        add("Silence", track.silences);
    }
    if (all == 0) {
        return "";
    }
    const std::string note =
        all > kGapsListed ? format_text("the first %zu of %zu", kGapsListed, all) : "";
    return section("Gaps and silence", note,
                   "<div class=\"wide\"><table>\n<tr><th scope=\"col\">Track</th><th "
                   "scope=\"col\">From</th><th scope=\"col\">Length</th></tr>\n" +
                       rows + "</table></div>\n");
}

static std::string key_chart(const media_report &report)
{
    const track_report *const video = find_track(report, "Video");
    if (video == nullptr) {
        return "";
    }
    time_chart chart = time_strip_open(report.duration_s, kKeyChartHeight);
    double drawn_s = -1;
    for (const double time_s : video->keys_s) {
        if (time_s >= drawn_s + report.duration_s / double{kMarksPerChart}) {
            time_chart_mark(chart, "key", time_s, "key frame at " + duration_text(time_s));
            drawn_s = time_s;
        }
    }
    for (const track_report &track : report.tracks) {
        const bool is_audio = track.kind == "Audio"; // on the lower half
        for (size_t i = 0; i < track.gaps.size() && i < kMarksPerChart; i++) {
            const time_gap &gap = track.gaps[i];
            time_chart_bar(chart, "gap", gap.begin_s, gap.begin_s + gap.length_s,
                           is_audio ? 0 : 0.5, is_audio ? 0.5 : 1,
                           track.kind + format_text(": %.3f s without a frame", gap.length_s));
        }
    }
    return section("Key frames and gaps",
                   "a line for each key frame, where playback can start; red where frames are "
                   "missing, pictures above and sound below",
                   time_chart_svg(chart, "Key frames and gaps over time"));
}

std::string info_page(const media_report &report)
{
    const std::string name = html_text(std::filesystem::path(report.path).filename().string());
    std::string page = "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                       "<title>" +
                       name + "</title>\n<style>" + style_sheet +
                       "</style>\n</head>\n<body>\n<main>\n";
    page +=
        "<h1>" + name + "</h1>\n<p class=\"quiet\">" + duration_text(report.duration_s) + ", " +
        size_text(report.bytes) +
        format_text(" (%llu bytes)", static_cast<unsigned long long>(report.bytes)) +
        (report.created.empty() ? ""
                                : ", made <span class=\"whole\">" + report.created + "</span>") +
        "</p>\n";
    std::string verdict = verdict_text(report);
    verdict[0] = verdict[0] == 'n' ? 'N' : verdict[0];
    page += std::string("<p class=\"verdict ") + (is_damaged(report) ? "bad" : "good") + "\">" +
            html_text(verdict) + "</p>\n";
    page += list("Faults", report.faults) + list("Notes", report.remarks);
    if (!report.tracks.empty()) {
        page += track_table(report);
    }
    if (report.duration_s > 0) {
        page += rate_chart(report) + lead_chart(report) + key_chart(report) + gap_table(report);
    }
    return page + "</main>\n</body>\n</html>\n";
}

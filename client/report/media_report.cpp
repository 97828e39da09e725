#include "client/report/media_report.h"

#include "client/report/figures.h"
#include "client/report/media_check.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>

using mp4_reader::movie;
using mp4_reader::sample;
using mp4_reader::track;

// More bins than these are narrower than a chart can show.
static constexpr size_t kMaxBins = 240;
static constexpr double kLongestS = 1e7; // longer times occur only in damaged files

// A frame that lasts this much longer than usual leaves a gap.
static constexpr double kGapFactor = 1.5;
static constexpr double kGapToleranceS = 0.005;

// Sound and pictures may end this far from each other.
static constexpr double kEndToleranceS = 0.5;

// So many equal frames are a run of silence; longer ones hold sound.
static constexpr size_t kSilentFramesMin = 3;
static constexpr uint32_t kSilentBytesMax = 64;

static double seconds_at(const track &of, uint64_t ticks)
{
    return of.timescale == 0 ? 0 : std::min(static_cast<double>(ticks) / of.timescale, kLongestS);
}

static std::string avc_text(const mp4_reader::avc_configuration &avc)
{
    if (avc.record.size() < 4) {
        return "H.264";
    }
    static const struct {
        unsigned profile_idc;
        const char *name;
    } profiles[] = {{66, "Baseline"}, {77, "Main"}, {88, "Extended"}, {100, "High"}};
    const unsigned profile = avc.record[1];
    const bool is_constrained = profile == 66 && (avc.record[2] & 0x40) != 0;
    std::string name = "profile " + std::to_string(profile);
    for (const auto &each : profiles) {
        name = each.profile_idc == profile ? each.name : name;
    }
    const unsigned level = avc.record[3];
    return "H.264 " + std::string(is_constrained ? "Constrained " : "") + name + " " +
           std::to_string(level / 10) + "." + std::to_string(level % 10);
}

static std::string coding_text(const track &of)
{
    if (of.coding == "avc1") {
        return avc_text(of.avc);
    }
    if (of.coding == "mp4a" && of.esds.object_type == mp4_reader::kObjectTypeAac) {
        const std::vector<uint8_t> &config = of.esds.specific_info;
        const unsigned object_type = config.empty() ? 0 : config[0] >> 3;
        return object_type == 2 ? "AAC-LC" : "AAC, object type " + std::to_string(object_type);
    }
    return mp4_reader::printable(of.coding);
}

// returns: the median of the frames' durations without the last one, which is arbitrary; found by
//          its upper and its lower half, in memory that does not grow with the frames
static uint32_t median_duration(const track &of)
{
    size_t rank = (of.list.size() - 1) / 2;
    uint32_t upper = 0;
    for (const unsigned shift : {16u, 0u}) {
        std::vector<size_t> counts(1 << 16);
        size_t left = of.list.size() - 1;
        for (auto at = of.list.begin(); left > 0; ++at, left--) {
            if (shift == 16 || at->duration >> 16 == upper) {
                counts[at->duration >> shift & 0xFFFF]++;
            }
        }
        uint32_t half = 0;
        for (; rank >= counts[half]; half++) {
            rank -= counts[half];
        }
        upper = upper << 16 | half;
    }
    return upper;
}

// Finds the gaps: frames that last much longer than the median. The other frames give frame_s.
static void find_gaps(const track &of, track_report &report)
{
    if (of.list.size() < 2) {
        return;
    }
    const double usual_s = seconds_at(of, median_duration(of));
    const size_t durations = of.list.size() - 1;
    double even_s = 0;
    size_t left = durations;
    for (auto at = of.list.begin(); left > 0; ++at, left--) {
        const double duration_s = seconds_at(of, at->duration);
        if (duration_s > usual_s * kGapFactor + kGapToleranceS) {
            report.gaps.push_back({seconds_at(of, at->time) + usual_s, duration_s - usual_s});
        } else {
            even_s += duration_s;
        }
    }
    report.frame_s = even_s / static_cast<double>(durations - report.gaps.size());
}

static bool are_equal_frames(const sample &one, const sample &before,
                             std::span<const uint8_t> image)
{
    const uint64_t end = image.size();
    return one.size == before.size && one.size <= kSilentBytesMax && one.size > 0 &&
           one.offset <= end - std::min<uint64_t>(one.size, end) &&
           before.offset <= end - std::min<uint64_t>(one.size, end) &&
           std::equal(image.begin() + static_cast<ptrdiff_t>(one.offset),
                      image.begin() + static_cast<ptrdiff_t>(one.offset + one.size),
                      image.begin() + static_cast<ptrdiff_t>(before.offset));
}

// Finds the runs of digital silence: an encoder gives all their frames the same few bytes.
static void find_silences(const track &of, std::span<const uint8_t> image, track_report &report)
{
    size_t run = 0;
    uint64_t run_time = 0;
    size_t index = 0;
    sample before;
    for (const sample &one : of.list) {
        if (index > 0 && are_equal_frames(one, before, image)) {
            run++;
        } else {
            if (run >= kSilentFramesMin && run < index) { // else it begins the sound
                const double begin_s = seconds_at(of, run_time);
                report.silences.push_back({begin_s, seconds_at(of, one.time) - begin_s});
            }
            run = 1;
            run_time = one.time;
        }
        before = one;
        index++;
    }
}

static void find_key_frames(const track &of, track_report &report)
{
    size_t keys = 0;
    for (const sample &each : of.list) {
        keys += each.sync ? 1 : 0;
    }
    if (keys < of.list.size()) {
        for (const sample &each : of.list) {
            if (each.sync) {
                report.keys_s.push_back(seconds_at(of, each.time));
            }
        }
    }
    for (size_t i = 1; i < report.keys_s.size(); i++) {
        report.key_distance_s =
            std::max(report.key_distance_s, report.keys_s[i] - report.keys_s[i - 1]);
    }
}

static void count_bits(const track &of, double bin_s, track_report &report)
{
    const size_t bins = static_cast<size_t>(report.duration_s / bin_s) + 1;
    report.rates.resize(std::min(bins, kMaxBins + 1));
    for (const sample &each : of.list) {
        const size_t bin = static_cast<size_t>(seconds_at(of, each.time) / bin_s);
        report.bytes += each.size;
        report.rates[std::min(bin, report.rates.size() - 1)] += 8.0 * each.size / bin_s;
    }
    const double rest_s = report.duration_s - static_cast<double>(report.rates.size() - 1) * bin_s;
    const bool is_only_bin = report.rates.size() == 1;
    if (rest_s >= bin_s / 4 || (is_only_bin && rest_s > 0)) { // the last bin is shorter
        report.rates.back() *= bin_s / rest_s;
    } else if (!is_only_bin) { // too short for a rate
        report.rates.pop_back();
    }
    report.bit_rate_max = *std::max_element(report.rates.begin(), report.rates.end());
    report.bit_rate =
        report.duration_s > 0 ? 8.0 * static_cast<double>(report.bytes) / report.duration_s : 0;
}

static double end_of(const track &of)
{
    return of.list.empty()
               ? 0
               : seconds_at(of, of.list.last.time) + seconds_at(of, of.list.last.duration);
}

static track_report report_track(const track &of, double bin_s, std::span<const uint8_t> image)
{
    track_report report;
    report.kind = of.handler == "vide"   ? "Video"
                  : of.handler == "soun" ? "Audio"
                                         : mp4_reader::printable(of.handler);
    report.coding = coding_text(of);
    report.width = of.width;
    report.height = of.height;
    report.sample_rate = of.sample_rate;
    report.channels = of.channels;
    report.frames = of.list.size();
    report.duration_s = end_of(of);
    find_gaps(of, report);
    if (of.handler == "soun") {
        find_silences(of, image, report);
    }
    find_key_frames(of, report);
    count_bits(of, bin_s, report);
    return report;
}

// Compares each picture with the sound that was written before it: frames are in a file in the
// order of their arrival.
static void compare_arrival(const movie &file, media_report &report)
{
    const track *const video = mp4_reader::find_track(file, "vide");
    const track *const audio = mp4_reader::find_track(file, "soun");
    if (video == nullptr || audio == nullptr) {
        return;
    }
    const double bin_s = report.bin_s / 2;
    auto heard = audio->list.begin(); // after the audio frames before the picture
    for (const sample &picture : video->list) {
        while (heard != audio->list.end() && heard->offset < picture.offset) {
            ++heard;
        }
        if (heard.index == 0 || heard == audio->list.end()) { // no sound yet, or no more
            continue;
        }
        const double time_s = seconds_at(*video, picture.time);
        const double lead_s = seconds_at(*audio, heard->time) - time_s;
        if (report.leads.empty() || time_s >= report.leads.back().time_s + bin_s) {
            report.leads.push_back({time_s, lead_s, lead_s});
        }
        lead_range &range = report.leads.back();
        range.low_s = std::min(range.low_s, lead_s);
        range.high_s = std::max(range.high_s, lead_s);
    }
}

static void compare_ends(const movie &file, media_report &report)
{
    const track_report *const video = find_track(report, "Video");
    const track_report *const audio = find_track(report, "Audio");
    if (video != nullptr && audio != nullptr && video->frames > 0 && audio->frames > 0 &&
        carries_audio(*mp4_reader::find_track(file, "soun"))) {
        report.ends_apart_s = audio->duration_s - video->duration_s;
    }
}

static void read_fragments(const movie &file, media_report &report)
{
    if (file.is_fragmented) {
        report.fragments = static_cast<uint64_t>(
            std::count_if(file.boxes.begin(), file.boxes.end(),
                          [](const mp4_reader::box &each) { return each.type == "moof"; }));
        const double header_s =
            file.timescale == 0 ? 0 : static_cast<double>(file.duration) / file.timescale;
        report.duration_s = std::max(report.duration_s, std::min(header_s, kLongestS));
    }
}

// in: seconds since 1904
// returns: the date; empty for a time that is not set or out of range
static std::string date_text(uint64_t seconds)
{
    constexpr uint64_t kFrom1904To1970 = 2'082'844'800;
    const time_t time = static_cast<time_t>(seconds - kFrom1904To1970);
    std::tm parts = {};
    std::array<char, 32> text = {};
    if (seconds < kFrom1904To1970 || seconds >> 33 != 0 || gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return "";
    }
    return text.data();
}

media_report media_report_make(const std::string &path, std::span<const uint8_t> image,
                               const std::function<void()> &pause)
{
    const movie file = mp4_reader::read_movie(image, [](track *, const sample &) {}, pause);
    media_report report = {.path = path, .bytes = image.size()};
    report.created = date_text(file.creation_time);
    for (const track &each : file.tracks) {
        report.duration_s = std::max(report.duration_s, end_of(each));
    }
    report.bin_s = std::max(1.0, std::ceil(report.duration_s / kMaxBins));
    for (const track &each : file.tracks) {
        report.tracks.push_back(report_track(each, report.bin_s, image));
    }
    compare_arrival(file, report);
    compare_ends(file, report);
    read_fragments(file, report);
    media_findings found = media_check(file, image);
    report.faults = file.faults;
    report.faults.insert(report.faults.end(), found.faults.begin(), found.faults.end());
    report.remarks = file.notes;
    report.remarks.insert(report.remarks.end(), found.remarks.begin(), found.remarks.end());
    return report;
}

const track_report *find_track(const media_report &report, const std::string &kind)
{
    const auto found = std::find_if(report.tracks.begin(), report.tracks.end(),
                                    [&](const track_report &each) { return each.kind == kind; });
    return found == report.tracks.end() ? nullptr : &*found;
}

std::optional<lead_range> whole_lead(const media_report &report)
{
    if (report.leads.empty()) {
        return std::nullopt;
    }
    lead_range whole = report.leads.front();
    for (const lead_range &each : report.leads) {
        whole.low_s = std::min(whole.low_s, each.low_s);
        whole.high_s = std::max(whole.high_s, each.high_s);
    }
    return whole;
}

bool is_damaged(const media_report &report)
{
    return !report.faults.empty() || std::abs(report.ends_apart_s) > kEndToleranceS ||
           std::any_of(report.tracks.begin(), report.tracks.end(),
                       [](const track_report &each) { return !each.gaps.empty(); });
}

static void append(std::string &text, const std::string &part)
{
    text += (text.empty() ? "" : ", ") + part;
}

std::string state_text(const media_report &report)
{
    std::string missing;
    for (const track_report &each : report.tracks) {
        double length_s = 0;
        for (const time_gap &gap : each.gaps) {
            length_s += gap.length_s;
        }
        if (!each.gaps.empty()) {
            append(missing, (each.kind == "Video"   ? "pictures"
                             : each.kind == "Audio" ? "sound"
                                                    : each.kind) +
                                format_text(" %.3f s in %zu place%s", length_s, each.gaps.size(),
                                            each.gaps.size() == 1 ? "" : "s"));
        }
    }
    if (std::abs(report.ends_apart_s) > kEndToleranceS) {
        append(missing,
               std::string(report.ends_apart_s > 0 ? "the pictures end" : "the sound ends") +
                   format_text(" %.3f s early", std::abs(report.ends_apart_s)));
    }
    return std::string(is_damaged(report) ? "damaged" : "complete") +
           (missing.empty() ? "" : ": " + missing);
}

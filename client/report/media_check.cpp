#include "client/report/media_check.h"

#include "client/report/figures.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>

using mp4_reader::movie;
using mp4_reader::sample;
using mp4_reader::track;

// A header's duration may differ by this much from the sum of the frames' durations.
static constexpr double kDurationToleranceS = 0.1;

// Sound and picture may end this far from each other.
static constexpr double kEndToleranceS = 0.5;

// An intact file takes one walk. A hostile one may name the same bytes again and again.
static constexpr uint64_t kWalksOfMediaData = 4;

// The frame of silence of a recording without sound, in stereo; in mono it is shorter.
static constexpr uint32_t kSilentFrameBytesMax = 7;

// nal_unit_type, ISO/IEC 14496-10 table 7-1
static constexpr unsigned kNalSlice = 1, kNalIdr = 5;

struct range {
    uint64_t begin, end;

    bool operator<(const range &other) const
    {
        return begin < other.begin;
    }
};

// A fault that many frames may have: reported once, with their number.
struct tally {
    size_t count = 0;
    size_t first = 0; // its number, from 1

    void add(size_t index)
    {
        first = count++ == 0 ? index + 1 : first;
    }
};

struct checker {
    const movie &file;
    std::span<const uint8_t> image;
    std::vector<range> media_data; // by position
    uint64_t bytes_to_walk = 0;    // left for the check of pictures
    media_findings findings;
    std::string where; // prefix of each finding, such as "track 1: "

    void fault(const std::string &what)
    {
        findings.faults.push_back(where + what);
    }
    void remark(const std::string &what)
    {
        findings.remarks.push_back(where + what);
    }
    void fault(const tally &frames, const std::string &what)
    {
        if (frames.count > 0) {
            fault(std::to_string(frames.count) + (frames.count == 1 ? " frame " : " frames ") +
                  what + ", the first is frame " + std::to_string(frames.first));
        }
    }
};

static std::string seconds_text(double seconds)
{
    return format_text("%.3f s", seconds);
}

static double seconds_of(uint64_t ticks, uint32_t timescale)
{
    return timescale == 0 ? 0 : static_cast<double>(ticks) / timescale;
}

static double end_of(const track &of)
{
    return of.list.empty() ? 0
                           : seconds_of(of.list.last.time + of.list.last.duration, of.timescale);
}

static bool is_read_whole(const movie &file)
{
    return !file.is_fragmented &&
           std::all_of(file.tracks.begin(), file.tracks.end(),
                       [](const track &each) { return each.samples_left_out == 0; });
}

static void find_media_data(checker &self)
{
    for (const mp4_reader::box &each : self.file.boxes) {
        if (each.type == "mdat") {
            const uint64_t begin = static_cast<uint64_t>(each.payload.data() - self.image.data());
            self.media_data.push_back({begin, begin + each.payload.size()});
            self.bytes_to_walk += kWalksOfMediaData * each.payload.size();
        }
    }
}

static bool is_in_media_data(const checker &self, const sample &each)
{
    const auto after =
        std::upper_bound(self.media_data.begin(), self.media_data.end(), range{each.offset, 0});
    if (after == self.media_data.begin()) {
        return false;
    }
    const range &data = *std::prev(after); // the last that begins at or before the sample
    return each.size <= data.end - data.begin && each.offset <= data.end - each.size;
}

struct picture {
    bool is_complete = true; // its NAL units fill it exactly
    bool has_slice = false;
    bool is_idr = false;
};

static picture look_at_picture(std::span<const uint8_t> data, size_t length_bytes)
{
    picture result;
    while (!data.empty()) {
        if (data.size() < length_bytes) {
            result.is_complete = false;
            break;
        }
        size_t length = 0;
        for (const uint8_t byte : data.first(length_bytes)) {
            length = length << 8 | byte;
        }
        data = data.subspan(length_bytes);
        if (length == 0 || length > data.size()) {
            result.is_complete = false;
            break;
        }
        const unsigned type = data[0] & 0x1Fu;
        result.is_idr = result.is_idr || type == kNalIdr;
        result.has_slice = result.has_slice || (type >= kNalSlice && type <= kNalIdr);
        data = data.subspan(length);
    }
    return result;
}

static void check_pictures(checker &self, const track &video)
{
    if (video.avc.sps.empty() || video.avc.pps.empty()) {
        self.fault("has no parameter sets, without which no picture can be decoded");
    }
    const size_t length_bytes =
        video.avc.record.size() > 4 ? (video.avc.record[4] & 3u) + 1 : size_t{4};
    tally broken, empty, no_idr;
    for (auto at = video.list.begin(); at != video.list.end(); ++at) {
        const sample &each = *at;
        if (!is_in_media_data(self, each)) {
            continue;
        }
        if (each.size > self.bytes_to_walk) {
            self.remark("its frames share so many bytes that not all were checked");
            break;
        }
        self.bytes_to_walk -= each.size;
        const picture found = look_at_picture(
            self.image.subspan(static_cast<size_t>(each.offset), each.size), length_bytes);
        if (!found.is_complete) {
            broken.add(at.index);
        } else if (!found.has_slice) {
            empty.add(at.index);
        } else if (each.sync && !found.is_idr) {
            no_idr.add(at.index);
        }
    }
    self.fault(broken, "with wrong NAL unit lengths");
    self.fault(empty, "without a picture");
    self.fault(no_idr, "marked as key frame without an IDR picture");
    if (!video.list.empty() && !video.list.first.sync) {
        self.fault("does not begin with a key frame");
    }
}

static void check_audio(checker &self, const track &audio)
{
    if (audio.esds.object_type != 0 && audio.esds.object_type != mp4_reader::kObjectTypeAac) {
        return;
    }
    if (audio.esds.specific_info.empty()) {
        self.fault("has no decoder configuration");
    }
    if (audio.sample_rate == 0) {
        return;
    }
    static constexpr double kFrameSamples = 1024;
    const double held = static_cast<double>(audio.list.size()) * kFrameSamples / audio.sample_rate;
    const double given = end_of(audio);
    if (std::abs(held - given) > kDurationToleranceS && audio.list.size() > 1) {
        self.remark("its frames hold " + seconds_text(held) + " of sound but are given " +
                    seconds_text(given));
    }
}

static void check_places(checker &self, const track &of)
{
    tally outside, empty;
    for (auto at = of.list.begin(); at != of.list.end(); ++at) {
        if (at->size == 0) {
            empty.add(at.index);
        } else if (!is_in_media_data(self, *at)) {
            outside.add(at.index);
        }
    }
    self.fault(outside, "outside the media data");
    self.fault(empty, "of size 0");
}

static void check_times(checker &self, const track &of)
{
    if (of.timescale == 0) {
        self.fault("has a time scale of 0");
        return;
    }
    const double end = end_of(of);
    const double media = seconds_of(of.media_duration, of.timescale);
    const double header = seconds_of(of.movie_duration, self.file.timescale);
    if (std::abs(media - end) > kDurationToleranceS) {
        self.fault("its media header says " + seconds_text(media) + ", its frames last " +
                   seconds_text(end));
    }
    if (std::abs(header - end) > kDurationToleranceS && self.file.timescale != 0) {
        self.fault("its track header says " + seconds_text(header) + ", its frames last " +
                   seconds_text(end));
    }
}

static void check_track(checker &self, const track &of)
{
    if (of.list.empty()) {
        if (!self.file.is_fragmented) {
            self.fault("holds no frames");
        }
        return;
    }
    check_places(self, of);
    if (is_read_whole(self.file)) {
        check_times(self, of);
    }
    if (of.handler == "vide" && of.coding == "avc1") {
        check_pictures(self, of);
    } else if (of.handler == "soun" && of.coding == "mp4a") {
        check_audio(self, of);
    }
}

static void check_movie(checker &self)
{
    std::set<uint32_t> ids;
    double longest = 0;
    for (const track &each : self.file.tracks) {
        if (each.id == 0 || !ids.insert(each.id).second) {
            self.fault("track number " + std::to_string(each.id) +
                       (each.id == 0 ? " is not allowed" : " is used twice"));
        }
        longest = std::max(longest, end_of(each));
    }
    // Writers of fragmented files leave this number as it is before the tracks are known.
    if (!ids.empty() && self.file.next_track_id <= *ids.rbegin() && !self.file.is_fragmented) {
        self.fault("the next track's number is already used");
    }
    if (self.file.timescale == 0) {
        self.fault("the movie has a time scale of 0");
    } else if (is_read_whole(self.file) &&
               std::abs(seconds_of(self.file.duration, self.file.timescale) - longest) >
                   kDurationToleranceS) {
        self.fault("the movie header says " +
                   seconds_text(seconds_of(self.file.duration, self.file.timescale)) +
                   ", its tracks last " + seconds_text(longest));
    }
    if (self.file.tracks.empty()) {
        self.fault("the movie has no track");
    }
}

// The bytes of frames so far, in the order of the file.
struct coverage {
    uint64_t covered = 0, end = 0;
    size_t shared = 0; // frames that share bytes with another

    void add(const range &frame)
    {
        shared += frame.begin < end ? 1 : 0;
        covered += frame.end > end ? frame.end - std::max(frame.begin, end) : 0;
        end = std::max(end, frame.end);
    }
};

static range range_of(const sample &frame)
{
    return {frame.offset, frame.offset + frame.size};
}

// Moves to the next frame that has bytes in the media data.
static void skip_others(const checker &self, const track &of, mp4_reader::sample_iterator &at)
{
    while (at != of.list.end() && (at->size == 0 || !is_in_media_data(self, *at))) {
        ++at;
    }
}

// Takes the frames of all tracks in the order of the file.
// returns: nothing when those of a track are not in this order
static std::optional<coverage> cover_in_order(const checker &self)
{
    std::vector<mp4_reader::sample_iterator> heads;
    for (const track &each : self.file.tracks) {
        heads.push_back(each.list.begin());
        skip_others(self, each, heads.back());
    }
    coverage sum;
    uint64_t last = 0;
    for (;;) {
        size_t next = heads.size();
        for (size_t i = 0; i < heads.size(); i++) {
            if (heads[i] != std::default_sentinel &&
                (next == heads.size() || heads[i]->offset < heads[next]->offset)) {
                next = i;
            }
        }
        if (next == heads.size()) {
            return sum;
        }
        if (heads[next]->offset < last) {
            return std::nullopt;
        }
        last = heads[next]->offset;
        sum.add(range_of(*heads[next]));
        skip_others(self, self.file.tracks[next], ++heads[next]);
    }
}

static coverage cover_sorted(const checker &self)
{
    std::vector<range> used;
    for (const track &each : self.file.tracks) {
        for (const sample &frame : each.list) {
            if (frame.size > 0 && is_in_media_data(self, frame)) {
                used.push_back(range_of(frame));
            }
        }
    }
    std::sort(used.begin(), used.end());
    coverage sum;
    for (const range &each : used) {
        sum.add(each);
    }
    return sum;
}

// Reports frames that share bytes, and bytes of the media data that belong to no frame.
static void check_media_data(checker &self)
{
    const std::optional<coverage> in_order = cover_in_order(self);
    const coverage sum = in_order ? *in_order : cover_sorted(self);
    if (sum.shared > 0) {
        self.fault("frames that share bytes with another: " + std::to_string(sum.shared));
    }
    uint64_t all = 0;
    for (const range &each : self.media_data) {
        all += each.end - each.begin;
    }
    if (all > sum.covered && is_read_whole(self.file)) {
        self.remark("bytes of the media data that no frame uses: " +
                    std::to_string(all - sum.covered));
    }
}

bool carries_audio(const track &audio)
{
    return audio.list.size() != 1 || audio.list.first.size > kSilentFrameBytesMax;
}

static void compare_ends(checker &self)
{
    const track *const video = mp4_reader::find_track(self.file, "vide");
    const track *const audio = mp4_reader::find_track(self.file, "soun");
    if (video == nullptr || audio == nullptr || !is_read_whole(self.file)) {
        return;
    }
    if (!carries_audio(*audio)) {
        self.remark("the sound is one frame of silence: the programme was recorded without sound");
        return;
    }
    const double apart = end_of(*audio) - end_of(*video);
    if (std::abs(apart) > kEndToleranceS) {
        self.remark("the sound ends " + seconds_text(std::abs(apart)) +
                    (apart > 0 ? " after" : " before") + " the picture");
    }
}

media_findings media_check(const movie &file, std::span<const uint8_t> image)
{
    checker self = {file, image};
    if (mp4_reader::find(file.boxes, "moov") == nullptr) {
        return self.findings; // the reader has reported it
    }
    find_media_data(self);
    check_movie(self);
    for (size_t i = 0; i < file.tracks.size(); i++) {
        self.where = "track " + std::to_string(i + 1) + ": ";
        check_track(self, file.tracks[i]);
    }
    self.where.clear();
    check_media_data(self);
    compare_ends(self);
    return self.findings;
}

// The content of an MP4 file in figures for people.
#ifndef CLIENT_REPORT_MEDIA_REPORT_H
#define CLIENT_REPORT_MEDIA_REPORT_H

#include "mp4read/mp4_reader.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct time_gap {
    double begin_s = 0;
    double length_s = 0; // of the part without a frame
};

struct track_report {
    std::string kind;   // "Video", "Audio", or the handler's four characters
    std::string coding; // such as "H.264 High 4.0"
    uint32_t width = 0, height = 0;
    uint32_t sample_rate = 0, channels = 0;
    uint64_t frames = 0, bytes = 0;
    double duration_s = 0;
    double frame_s = 0;         // mean time from frame to frame, gaps apart
    double bit_rate = 0;        // bit/s, mean
    double bit_rate_max = 0;    // bit/s, of the highest bin
    std::vector<double> rates;  // bit/s, bin by bin
    std::vector<double> keys_s; // times of key frames; empty if every frame is one
    double key_distance_s = 0;  // the longest from one to the next
    std::vector<time_gap> gaps;
    std::vector<time_gap> silences; // frames of digital silence between others
};

// The interleaving in a section of the file: by how much the sound that is written next to a
// picture is later than it. Negative: it is earlier. A player does not depend on this order.
struct lead_range {
    double time_s = 0;
    double low_s = 0, high_s = 0;
};

struct media_report {
    std::string path;
    uint64_t bytes = 0;
    double duration_s = 0;
    std::string created; // empty when the file does not say
    double bin_s = 1;    // the length of a bin of the bit rates
    std::vector<track_report> tracks;
    std::vector<lead_range> leads;
    double ends_apart_s = 0; // positive: the sound ends after the pictures
    uint64_t fragments = 0;  // whose frames are not read
    std::vector<std::string> faults, remarks;
};

// in: the path to show, and the image of the whole file
// in: a function that is called again and again, when parts of the image need not stay in memory
// returns: the report
media_report media_report_make(const std::string &path, std::span<const uint8_t> image,
                               const std::function<void()> &pause = {});

// returns: the first track of a kind, or null; it is part of the report
const track_report *find_track(const media_report &report, const std::string &kind);

// returns: whether pictures or sound are missing, as far as the file shows it, or the file has a
//          fault
bool is_damaged(const media_report &report);

// returns: "complete" or "damaged", and what is missing
std::string state_text(const media_report &report);

// returns: the lead over the whole file; nothing unless it holds both sound and pictures
std::optional<lead_range> whole_lead(const media_report &report);

#endif // CLIENT_REPORT_MEDIA_REPORT_H

// What an MP4 file holds, in figures for people.
#ifndef CLIENT_REPORT_MEDIA_REPORT_H
#define CLIENT_REPORT_MEDIA_REPORT_H

#include "mp4read/mp4_reader.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct time_gap {
    double begin_s = 0;
    double length_s = 0; // of the time without a frame
};

struct track_report {
    std::string kind;   // "Video", "Audio", or the handler's four characters
    std::string coding; // in words
    uint32_t width = 0, height = 0;
    uint32_t sample_rate = 0, channels = 0;
    uint64_t frames = 0, bytes = 0;
    double duration_s = 0;
    double frame_s = 0;         // the usual time from frame to frame
    double bit_rate = 0;        // bit/s, over all
    double bit_rate_max = 0;    // in the fullest bin
    std::vector<double> rates;  // bit/s, bin by bin
    std::vector<double> keys_s; // when key frames are shown; empty where every frame is one
    double key_distance_s = 0;  // the longest from one to the next
    std::vector<time_gap> gaps;
};

// How far the sound was ahead of the picture (in seconds, negative: behind) where they were
// written, for a stretch of time.
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
    std::vector<std::string> faults, remarks;
};

// Reads a whole file's image.
media_report media_report_make(const std::string &path, std::span<const uint8_t> image);

// The first track of a kind, or null.
const track_report *find_track(const media_report &report, const std::string &kind);

// How far the sound was ahead over the whole file; nothing without sound beside pictures.
std::optional<lead_range> whole_lead(const media_report &report);

#endif // CLIENT_REPORT_MEDIA_REPORT_H

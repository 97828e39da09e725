// A reader of MP4 files that shares nothing with the muxer: written from ISO/IEC 14496-12, -14 and
// -15, it takes a file's image apart and reports its faults. Whatever the image holds, the reader
// uses at most a few hundred megabytes.
#ifndef MP4READ_MP4_READER_H
#define MP4READ_MP4_READER_H

#include "mp4read/sample_list.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace mp4_reader {

struct box {
    std::string type;  // four bytes of any value
    uint64_t size = 0; // with the header; up to the end of the file where that says 0
    std::span<const uint8_t> payload; // within the image
    std::vector<box> children;
};

struct avc_configuration {
    std::vector<uint8_t> record; // the payload of avcC
    std::vector<std::vector<uint8_t>> sps, pps;
};

inline constexpr uint32_t kObjectTypeAac = 0x40; // MPEG-4 audio

struct stream_descriptors {
    uint32_t object_type = 0, stream_type = 0;
    std::vector<uint8_t> specific_info;
};

struct track {
    uint32_t id = 0, timescale = 0;
    uint64_t creation_time = 0;                      // in seconds since 1904
    uint64_t movie_duration = 0, media_duration = 0; // in ticks of the movie and of the track
    std::string handler, coding;                     // four bytes each
    uint32_t width = 0, height = 0;                  // of a video track, in pixels
    uint32_t sample_rate = 0, channels = 0;          // of an audio track, in Hz
    avc_configuration avc;
    stream_descriptors esds;
    sample_list list;              // of the samples; it needs the image
    std::vector<sample> samples;   // the same, if they are wanted in memory
    uint64_t samples_left_out = 0; // at the track's end, because of the reader's own limit
};

struct movie {
    std::vector<box> boxes;
    std::vector<track> tracks;
    uint64_t creation_time = 0; // in seconds since 1904
    uint64_t duration = 0;      // in ticks of the movie
    uint32_t timescale = 0, next_track_id = 0;
    bool is_fragmented = false;      // the movie continues in fragments, whose frames are not read
    std::vector<std::string> faults; // in the order found, without repeats, at most a hundred
    std::vector<std::string> notes;  // what the reader left out, which is no fault of the file
};

// Reads a file.
// in: the image of the whole file; an incomplete or damaged one gives faults
// returns: what could be read, with the faults
// owns: the caller keeps the image as long as it uses the payloads of the boxes
movie read_movie(std::span<const uint8_t> image);

// As above, in memory that does not grow with the number of samples.
// in: a sink that gets each sample, in decoding order, in place of the track's `samples`. The track
//     is complete but for the samples when its first one arrives.
// in: a function that is called each time that a part of the tables has been read, also when the
//     lists of the tracks are; may be empty
using sample_sink = std::function<void(track *of, const sample &next)>;
movie read_movie(std::span<const uint8_t> image, const sample_sink &sink,
                 const std::function<void()> &pause = {});

// Finds a box by a path such as "moov/trak/tkhd".
// returns: the first one, or null; it is part of the boxes given
const box *find(const std::vector<box> &boxes, const std::string &path);

// in: a handler such as "vide" or "soun"
// returns: the first track with it, or null; it is part of the movie
const track *find_track(const movie &file, const std::string &handler);

// returns: the first fault; empty for an intact file
std::string first_fault(const movie &file);

// returns: the four characters of a type, with "?" in place of bytes that cannot be printed
std::string printable(const std::string &type);

} // namespace mp4_reader

#endif // MP4READ_MP4_READER_H

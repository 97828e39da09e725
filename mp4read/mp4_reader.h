// A reader of MP4 files that shares nothing with the muxer: written from ISO/IEC 14496-12, -14 and
// -15, it takes a file image apart and notes what is wrong with it. Whatever the image holds, its
// memory stays within a few hundred megabytes.
#ifndef MP4READ_MP4_READER_H
#define MP4READ_MP4_READER_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace mp4_reader {

struct box {
    std::string type;  // four characters, whatever they are
    uint64_t size = 0; // header included; up to the image's end where the file says 0
    std::span<const uint8_t> payload;
    std::vector<box> children;
};

struct sample {
    uint64_t offset = 0;
    uint32_t size = 0;
    uint64_t time = 0; // in ticks of the track
    uint32_t duration = 0;
    bool sync = false;

    bool operator==(const sample &) const = default;
};

struct avc_configuration {
    std::vector<uint8_t> record;
    std::vector<std::vector<uint8_t>> sps, pps;
};

struct stream_descriptors {
    uint32_t object_type = 0, stream_type = 0;
    std::vector<uint8_t> specific_info;
};

struct track {
    uint32_t id = 0, timescale = 0;
    uint64_t creation_time = 0;
    uint64_t movie_duration = 0, media_duration = 0; // in ticks of the movie and of the track
    std::string handler, coding;                     // four characters each
    uint32_t width = 0, height = 0;                  // of a picture
    uint32_t sample_rate = 0, channels = 0;          // of the sound
    avc_configuration avc;
    stream_descriptors esds;
    std::vector<sample> samples;
    uint64_t samples_left_out = 0; // behind them, for the reader's own limit
};

struct movie {
    std::vector<box> boxes; // their payloads point into the image
    std::vector<track> tracks;
    uint64_t creation_time = 0, duration = 0;
    uint32_t timescale = 0, next_track_id = 0;
    std::vector<std::string> faults; // as met, each once; beyond a hundred they are left out
    std::vector<std::string> notes;  // what was left unread, which is no fault of the file
};

// Reads a whole file, or one that begins at some box: the offsets of samples are the file's own.
movie read_movie(std::span<const uint8_t> image);

// The same in memory that does not grow with the samples: each track's go to the sink in turn
// instead of into its `samples`, when all else of the track is read.
using sample_sink = std::function<void(track *of, const sample &next)>;
movie read_movie(std::span<const uint8_t> image, const sample_sink &sink);

// The first box on a path such as "moov/trak/tkhd", or null.
const box *find(const std::vector<box> &boxes, const std::string &path);

const track *find_track(const movie &file, const std::string &handler);

// returns: the first fault; empty for an intact file.
std::string first_fault(const movie &file);

// The four characters with a "?" for what cannot be shown.
std::string printable(const std::string &type);

} // namespace mp4_reader

#endif // MP4READ_MP4_READER_H

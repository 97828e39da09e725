// A reader of MP4 files that shares nothing with the muxer: written from ISO/IEC 14496-12, -14 and
// -15, it takes a file image apart and checks what it meets.
#ifndef CLIENT_MP4_READER_H
#define CLIENT_MP4_READER_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace mp4_reader {

struct box {
    std::string type;
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
    uint32_t id = 0, timescale = 0, sample_rate = 0;
    uint64_t creation_time = 0;
    uint64_t movie_duration = 0, media_duration = 0; // in ticks of the movie and of the track
    std::string handler;
    avc_configuration avc;
    stream_descriptors esds;
    std::vector<sample> samples;
};

struct movie {
    std::vector<box> boxes; // their payloads point into the image
    std::vector<track> tracks;
    uint64_t creation_time = 0, duration = 0;
    uint32_t timescale = 0, next_track_id = 0;
    std::string error; // the first fault; empty for a sound file
};

// Reads a whole file, or one that begins at some box: the offsets of samples are the file's own.
movie read_movie(std::span<const uint8_t> image);

// The first box on a path such as "moov/trak/tkhd", or null.
const box *find(const std::vector<box> &boxes, const std::string &path);

const track *find_track(const movie &file, const std::string &handler);

} // namespace mp4_reader

#endif // CLIENT_MP4_READER_H

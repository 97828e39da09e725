// The programme's video: H.264 access units in the component's form with their times.
#ifndef CLIENT_INPUT_VIDEO_INPUT_H
#define CLIENT_INPUT_VIDEO_INPUT_H

#include "client/input/access_unit_converter.h"
#include "client/input/loss.h"
#include "client/input/media_file.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct video_unit {
    access_unit unit;
    int64_t time_us;
    bool new_format = false; // an IDR picture after a change of the parameter sets
};

struct video_input {
    std::unique_ptr<media_file> file;
    access_unit_converter converter;
    std::vector<parameter_set> configured_sets; // in the container
    AVRational frame_rate = {kDefaultFrameRate, 1};
    std::optional<int64_t> last_us;               // time of the last packet in the programme
    std::optional<int64_t> display_us, decode_us; // time stamps of the last packet
    int64_t packets = 0;
    int64_t begin_us = 0;         // of the file's first packet
    bool begun = false;           // the first IDR picture has been found
    bool given = false;           // a unit has been returned
    bool may_change = false;      // the parameter sets may change; otherwise a change is refused
    bool next_is_corrupt = false; // the demuxer has said so
    bool lacked_sets = false;
    unsigned leading = 0; // access units before the first IDR picture
    unsigned damaged = 0;
    unsigned undecoded = 0;         // IDR pictures before the first one that can be decoded
    unsigned damaged_sets = 0;      // without those that the converter has counted
    std::deque<video_unit> doubted; // begins with an IDR picture after other parameter sets
    std::deque<video_unit> ahead;
    std::vector<int64_t> steps_us; // from picture to picture, the last few in a ring
    std::vector<loss> losses;      // on the clock's line
};

// in: a number or a fraction, as the user gave it
// returns: the frame rate
// throws: `failure`
std::optional<AVRational> parse_frame_rate(const std::optional<std::string> &text);

// Opens the video of a file. Its clock may be joined to that of the file's audio before
// video_input_read_ahead().
// in: the frame rate of raw H.264; without it, the stream's own or the default
// returns: the input
// throws: `failure`
std::unique_ptr<video_input> video_input_open(const std::string &path,
                                              std::optional<AVRational> frame_rate);

// As above, for a file that has been opened.
std::unique_ptr<video_input> video_input_of(std::unique_ptr<media_file> file,
                                            std::optional<AVRational> frame_rate);

// Reads the first units. Throws `failure` for a stream that cannot be recorded, so that it is
// refused before the recording begins.
void video_input_read_ahead(video_input &video);

// returns: the time between two pictures at the stream's nominal rate
int64_t video_input_interval_us(const video_input &video);

// returns: the number of parameter sets left out because they were damaged
unsigned video_input_damaged_sets(const video_input &video);

// returns: the next access unit, the first of them an IDR picture; nothing at the end, and while
//          the file's clock waits for the audio
// throws: `failure` when the video cannot be read or recorded
std::optional<video_unit> video_input_next(video_input &video);

#endif // CLIENT_INPUT_VIDEO_INPUT_H

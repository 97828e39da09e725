// A programme: the video and the audio of one or two files, in the order of their times.
#ifndef CLIENT_INPUT_PROGRAMME_INPUT_H
#define CLIENT_INPUT_PROGRAMME_INPUT_H

#include "client/input/audio_input.h"
#include "client/input/video_input.h"

#include <array>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

enum class unit_kind { video, audio };

// One buffer's worth; the bytes stay until the next one is asked for.
struct programme_unit {
    unit_kind kind;
    int64_t time_us; // since the programme's first picture
    std::span<const uint8_t> bytes;
    bool idr; // a video unit that can be decoded by itself
};

struct programme_input {
    std::unique_ptr<video_input> video;
    std::unique_ptr<audio_input> audio;
    int64_t origin_us = 0;                // the first picture on the video file's clock
    std::optional<video_unit> next_video; // none at the end
    std::array<int16_t, kAudioBlockSamples * 2> next_audio = {};
    bool has_audio = false; // next_audio holds a block
    int64_t audio_blocks = 0;
    std::optional<unit_kind> given; // what the last call gave out
    std::exception_ptr fault;       // what one stream of the file broke off with
};

// Opens the programme. When both paths name one file, the streams share its clock; two files begin
// together. in: the frame rate for raw H.264, if the user gave one.
// throws `failure`.
std::unique_ptr<programme_input> programme_open(const std::string &video_path,
                                                const std::string &audio_path,
                                                std::optional<AVRational> frame_rate);

// returns the next unit; nothing at the end. throws `failure` for what cannot be read or recorded.
std::optional<programme_unit> programme_next(programme_input &programme);

// What the user should know of the input, a sentence each: what is clear from the beginning, and
// what has come up since.
std::vector<std::string> programme_opening_remarks(const programme_input &programme);
std::vector<std::string> programme_closing_remarks(const programme_input &programme);

#endif // CLIENT_INPUT_PROGRAMME_INPUT_H

// A programme: the video and the audio of one or two files, in the order of their times.
#ifndef CLIENT_INPUT_PROGRAMME_INPUT_H
#define CLIENT_INPUT_PROGRAMME_INPUT_H

#include "client/input/audio_input.h"
#include "client/input/loss.h"
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

// The content of one buffer; the bytes are valid until the next unit is read.
struct programme_unit {
    unit_kind kind;
    int64_t time_us; // since the programme's first picture
    std::span<const uint8_t> bytes;
    bool idr; // a video unit that can be decoded by itself
};

struct programme_input {
    std::unique_ptr<video_input> video;
    std::unique_ptr<audio_input> audio;
    int64_t origin_us = 0;                // time of the first picture on the video file's clock
    std::optional<video_unit> next_video; // none at the end
    std::array<int16_t, kAudioBlockSamples * 2> next_audio = {};
    bool has_audio = false; // next_audio holds a block
    int64_t audio_blocks = 0;
    std::optional<unit_kind> given; // kind of the last unit returned
    std::exception_ptr fault;       // the failure that broke off one stream of the file
    loss_account losses;            // up to the last unit returned, and all at the end
};

// Opens the programme. If both paths name one file, the streams share its clock; two files begin
// together.
// in: the frame rate of raw H.264, if the user gave one
// returns: the programme
// throws: `failure`
std::unique_ptr<programme_input> programme_open(const std::string &video_path,
                                                const std::string &audio_path,
                                                std::optional<AVRational> frame_rate);

// returns: the next unit; nothing at the end
// throws: `failure` when the input cannot be read or recorded
std::optional<programme_unit> programme_next(programme_input &programme);

// returns: a sentence for the user on each peculiarity of the input that is known before its first
//          unit is read
std::vector<std::string> programme_opening_remarks(const programme_input &programme);

#endif // CLIENT_INPUT_PROGRAMME_INPUT_H

// A programme: the video and the audio of one or two files, in the order of their times.
#ifndef CLIENT_INPUT_PROGRAMME_INPUT_H
#define CLIENT_INPUT_PROGRAMME_INPUT_H

#include "client/input/audio_input.h"
#include "client/input/loss.h"
#include "client/input/video_input.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

enum class unit_kind { video, audio };

// The content of one buffer; the bytes are valid until the next unit is read.
//
// The encoder delays the sound by one block. The sound is therefore given one block ahead, with the
// time of the block before, and without the first block.
struct programme_unit {
    unit_kind kind;
    int64_t time_us; // since the programme's first picture
    std::span<const uint8_t> bytes;
    bool idr;        // a video unit that can be decoded by itself
    bool new_format; // an IDR picture after a change of the parameter sets
};

struct programme_input {
    std::unique_ptr<video_input> video;
    std::unique_ptr<audio_input> audio;   // null without sound
    int64_t origin_us = 0;                // time of the first picture on the video file's clock
    std::optional<video_unit> next_video; // none at the end
    std::array<int16_t, kAudioBlockSamples * 2> next_audio = {};
    bool has_audio = false; // next_audio holds a block
    int64_t audio_blocks = 0;
    std::optional<unit_kind> given; // kind of the last unit returned
    std::exception_ptr fault;       // the failure that broke off one stream of the file
    loss_account losses;            // up to the last unit returned, and all at the end
};

// What a programme is read from.
struct programme_source {
    std::string video; // the same one as `audio` if it holds both
    std::string audio; // not used without audio
    bool with_audio = true;
    std::optional<bool> may_change;       // the parameter sets; by default those of a live source
    std::optional<AVRational> frame_rate; // of raw H.264, if the user gave one
    int pcm_rate = 0;                     // Hz, of audio that is bare 16-bit stereo PCM; 0: is not
    std::optional<std::chrono::system_clock::time_point> start_at; // none: at once
    wait_hook on_wait; // called while live sources and start_at are waited for; may be empty
};

// Opens the programme. If both paths name one file, the streams share its clock; two files begin
// together. A live source begins with what it sends at start_at.
// returns: the programme
// throws: `failure`
std::unique_ptr<programme_input> programme_open(const programme_source &source);

// Ends the live sources of the programme after what was received.
// returns: whether it has any
bool programme_stop_live(programme_input &programme);

// returns: the sampling rate of the sound that is given, the encoder's usual one without sound (Hz)
int programme_sample_rate(const programme_input &programme);

// returns: the duration of a block of sound
int64_t programme_block_us(const programme_input &programme);

// returns: the time of the next unit of sound; nothing when there is none
std::optional<int64_t> programme_sound_time_us(const programme_input &programme);

// returns: the next unit; nothing at the end
// throws: `failure` when the input cannot be read or recorded
std::optional<programme_unit> programme_next(programme_input &programme);

// returns: a sentence for the user on each peculiarity of the input that is known before its first
//          unit is read
std::vector<std::string> programme_opening_remarks(const programme_input &programme);

#endif // CLIENT_INPUT_PROGRAMME_INPUT_H

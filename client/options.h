// The command line.
#ifndef CLIENT_OPTIONS_H
#define CLIENT_OPTIONS_H

#include "component/tdmbrec_interface.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

inline constexpr double kCheckpointMaxS = 3600;

// Below the recorder's limit of 1,800,000,000 bytes by more than the distance of two key frames.
inline constexpr int kSplitSizeMbMin = 1, kSplitSizeMbMax = 1750;

struct record_options {
    std::string video; // input files; the same one if it holds both
    std::string audio;
    std::string output;
    std::optional<std::string> frame_rate; // a number or a fraction, as given
    int pcm_rate = 0;                      // Hz, if the audio is bare 16-bit stereo PCM
    std::optional<std::chrono::system_clock::time_point> start_at; // none: at once
    bool force = false;
    bool card = false;
    bool realtime = false;
    bool with_audio = true;
    bool json = false;
    int64_t duration_us = 0;    // of the programme; 0: all of it
    std::optional<bool> split;  // continue in further files; by default for live sources
    int64_t split_every_us = 0; // of the programme; 0: not by time
    int split_size_mb = 0;      // of a file, in millions of bytes; 0: not by size
    double checkpoint_s = 1;    // of programme, between checkpoints; 0: none
    int verbosity = 0;
};

struct encode_options {
    std::string input;
    std::string output;
    int bit_rate = 128000; // bit/s, of all channels
    bool raw = false;
    bool tns = false;
    bool pns = false;
    bool mpeg2 = false;
    bool force = false;
};

// The memory that the muxer writes through.
struct mux_memory {
    bool is_own = false; // allocated by the muxer itself
    // Bytes lent: the recorder's by default.
    int output = TDMBREC_OUTPUT_CACHE_BYTES;
    int video = TDMBREC_VIDEO_CACHE_BYTES;
    int audio = TDMBREC_AUDIO_CACHE_BYTES;
    int close = TDMBREC_CLOSE_MEMORY_BYTES;
};

struct mux_options {
    std::string video; // input files; empty: no such track
    std::string audio;
    std::string output;
    std::optional<std::string> frame_rate; // a number or a fraction, as given
    mux_memory memory;
    bool wide_offsets = false; // chunk offsets of 64 bits
    bool append = false;       // the tables are appended as files
    bool force = false;
};

struct info_options {
    std::string input;
    std::optional<std::string> page; // the HTML page's file; empty: standard output
    bool json = false;
    bool force = false;
};

struct recover_options {
    std::string broken; // a file, or a folder
    std::string output; // empty: beside it
    std::string like;   // a recording of the same channel
    std::string parameter_sets;
    std::optional<std::string> frame_rate;
    int sample_rate = 0; // Hz; 0: the one at which the sound parses
    bool guess = false;
    bool in_place = false;
    bool force = false;
    bool json = false;
};

// The options of the chosen command, or an exit code when nothing is left to do.
using command_line =
    std::variant<int, record_options, encode_options, mux_options, info_options, recover_options>;

// Reads the command line. Prints help, version and mistakes.
command_line options_parse(int argc, const char *const *argv);

#endif // CLIENT_OPTIONS_H

// Recordings by the muxer through callbacks that count how they are used.
#ifndef BENCH_MUX_RECORDING_H
#define BENCH_MUX_RECORDING_H

#include <array>
#include <cstdint>
#include <string>

enum class sink { file, null }; // a null sink keeps the output's position alone

struct recording_figures {
    double frames_cpu_seconds = 0;
    std::array<double, 10> tenths_cpu_seconds = {};
    double close_cpu_seconds = 0;
    double close_seconds = 0;  // elapsed
    double allocations = 0;    // after the open
    double writes_a_cache = 0; // of the media data, for each time that it fills the cache
    uint64_t output_bytes = 0;
    uint64_t scratch_bytes = 0;           // the sample tables
    const char *broken_promise = nullptr; // of the muxer
};

// Ends the program with a message.
[[noreturn]] void give_up(const char *why);

// Records the frames of a frame_source and checks the result. Scratch files go to the folder of the
// output.
// in: output: its name ends in ".mp4"; picture_bytes: on average
recording_figures record(std::string output, sink kind, uint32_t frames, uint32_t picture_bytes);

#endif // BENCH_MUX_RECORDING_H

// The environment of fuzzed recordings: files in memory whose writes fail on demand, large blocks
// that are kept, and caches of any size. The calls reach it through the linker's --wrap.
#ifndef FUZZ_RECORDING_ENVIRONMENT_H
#define FUZZ_RECORDING_ENVIRONMENT_H

#include <cstdint>

inline constexpr char kOutputPath[] = "/mnt/sdcard/fuzz.mp4";

struct frame_totals {
    uint64_t count;
    uint64_t bytes;
    bool operator==(const frame_totals &) const = default;
};

struct recording_environment {
    int output_file = -1;     // a second descriptor of the finished file
    uint32_t writes_left = 0; // after them every write fails
    uint32_t cache_units = 0; // 0: caches of the component's own size, otherwise small ones
    frame_totals given[3];    // to the muxer, by kind
    bool is_whole = false;    // it took every frame and was closed
};

extern recording_environment environment;

#endif // FUZZ_RECORDING_ENVIRONMENT_H

// A stream's time stamps as one steady line: where they jump back, or far ahead, as when a
// broadcast clock restarts, the line continues one step after the last time.
#ifndef CLIENT_STREAM_CLOCK_H
#define CLIENT_STREAM_CLOCK_H

#include <cstdint>
#include <optional>

struct stream_clock {
    std::optional<int64_t> last_us; // on the line
    int64_t offset_us = 0;          // from time stamps to the line
    unsigned jumps = 0;
};

inline constexpr int64_t CLOCK_JUMP_US = 10'000'000;

// Time stamps of sound that stray less than this from the running count of samples are taken as
// rounding.
inline constexpr int64_t DRIFT_TOLERANCE_US = 100'000;

// Sound that begins further away than this is not of the video's clock.
inline constexpr int64_t ALIGNMENT_MAX_US = 600'000'000;

// Puts a time stamp on the line; without one the line goes on by the step.
inline int64_t stream_clock_place(stream_clock &clock, std::optional<int64_t> time_us,
                                  int64_t step_us, int64_t tolerance_us)
{
    if (!clock.last_us) {
        clock.last_us = time_us.value_or(0);
        return *clock.last_us;
    }
    const int64_t next_us = *clock.last_us + step_us;
    int64_t placed_us = time_us ? *time_us + clock.offset_us : next_us;
    if (placed_us + tolerance_us <= *clock.last_us || placed_us > next_us + CLOCK_JUMP_US) {
        clock.offset_us += next_us - placed_us;
        clock.jumps++;
        placed_us = next_us;
    }
    clock.last_us = placed_us;
    return placed_us;
}

#endif

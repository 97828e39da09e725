// Steady rates of pictures and sounds, and the millisecond times that they give.
#ifndef RECOVERY_STEADY_RATE_H
#define RECOVERY_STEADY_RATE_H

#include <cstdint>

// Frames of a track per second: num / den, neither of them 0, num at most 10^9.
struct steady_rate {
    uint32_t num;
    uint32_t den;
};

// The rates of pictures that are likely, likeliest first.
inline constexpr int32_t kPictureRates = 12;
extern const steady_rate picture_rates[kPictureRates];

[[nodiscard]] double frame_ms(steady_rate rate);

// returns: the time of a frame of a track that begins at 0, rounded as a recording does: down
[[nodiscard]] uint32_t steady_time_ms(steady_rate rate, int64_t frame);

// Continues exact times at the steady rate that they have had.
inline constexpr int32_t kKeptTimes = 128;

struct time_grid {
    uint32_t times_ms[kKeptTimes]; // of the last frames, as a ring
    int64_t frames;                // in all
    int64_t kept_frames;           // of the ring, since the rate last changed
    steady_rate rate;              // of the last frame that was continued; zeros: a mean
};

// Adds the exact time of the next frame.
void time_grid_note(time_grid *grid, uint32_t time_ms);

// Extends the grid by one frame.
// in: rates: likely ones, likeliest first; the first one is that of a single frame
// returns: the frame's time; 0 for the first frame of all
uint32_t time_grid_continue(time_grid *grid, const steady_rate *rates, int32_t count);

#endif // RECOVERY_STEADY_RATE_H

#include "recovery/steady_rate.h"

#include <algorithm>
#include <cstdlib>

const steady_rate picture_rates[kPictureRates] = {
    {30, 1}, {30000, 1001}, {25, 1}, {15, 1}, {24, 1}, {24000, 1001},
    {20, 1}, {25, 2},       {10, 1}, {50, 1}, {60, 1}, {60000, 1001},
};

double frame_ms(steady_rate rate)
{
    return 1000.0 * rate.den / rate.num;
}

uint32_t steady_time_ms(steady_rate rate, int64_t frame)
{
    if (static_cast<double>(frame) * frame_ms(rate) >= UINT32_MAX) {
        return UINT32_MAX; // and the products below fit
    }
    return static_cast<uint32_t>(static_cast<uint64_t>(frame) * 1000 * rate.den / rate.num);
}

// in: back: 0 for the last frame
static uint32_t kept_time_ms(const time_grid *grid, int64_t back)
{
    return grid->times_ms[(grid->frames - 1 - back) % kKeptTimes];
}

// returns: whether a frame at this time continues the steady rate: rounding moves it by 1 ms
static bool is_steady(const time_grid *grid, uint32_t time_ms)
{
    if (grid->kept_frames < 2) {
        return true;
    }
    const int64_t last_ms = kept_time_ms(grid, 0);
    const int64_t last_delta_ms = last_ms - kept_time_ms(grid, 1);
    return std::abs(time_ms - last_ms - last_delta_ms) <= 1;
}

void time_grid_note(time_grid *grid, uint32_t time_ms)
{
    if (!is_steady(grid, time_ms)) {
        grid->kept_frames = 1; // the last one, from which the new rate begins
    }
    grid->times_ms[grid->frames % kKeptTimes] = time_ms;
    grid->frames++;
    grid->kept_frames = std::min<int64_t>(grid->kept_frames + 1, kKeptTimes);
}

// Times at a rate are phase + k * 1000 * den / num, rounded down. Finds the phase at which the kept
// frames, the last one with k = 0, have their times.
// out: phase: multiplied by num, relative to the last frame's time
// returns: false when there is no such phase
static bool find_phase(const time_grid *grid, steady_rate rate, int64_t *phase)
{
    int64_t least = 0;
    int64_t most = rate.num - 1;
    const int64_t last_ms = kept_time_ms(grid, 0);
    for (int64_t back = 1; back < grid->kept_frames; back++) {
        const int64_t before_ms = last_ms - kept_time_ms(grid, back);
        const int64_t phase_of_time = back * 1000 * rate.den - before_ms * rate.num;
        least = std::max(least, phase_of_time);
        most = std::min(most, phase_of_time + rate.num - 1);
    }
    *phase = least + (most - least) / 2;
    return least <= most;
}

// returns: the distance to the next frame
static int64_t next_delta_ms(time_grid *grid, const steady_rate *rates, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        int64_t phase = 0;
        if (find_phase(grid, rates[i], &phase)) {
            grid->rate = rates[i];
            return (phase + int64_t{1000} * rates[i].den) / rates[i].num;
        }
    }
    grid->rate = {};
    const int64_t frames = grid->kept_frames - 1;
    const int64_t all_ms = int64_t{kept_time_ms(grid, 0)} - kept_time_ms(grid, frames);
    return std::max<int64_t>((all_ms + frames / 2) / frames, 0);
}

uint32_t time_grid_continue(time_grid *grid, const steady_rate *rates, int32_t count)
{
    int64_t time_ms = 0;
    if (grid->frames == 1) {
        grid->rate = rates[0];
        time_ms = kept_time_ms(grid, 0) + int64_t{1000} * rates[0].den / rates[0].num;
    } else if (grid->frames > 1) {
        time_ms = kept_time_ms(grid, 0) + next_delta_ms(grid, rates, count);
    }
    const uint32_t next_ms = static_cast<uint32_t>(std::min<int64_t>(time_ms, UINT32_MAX));
    time_grid_note(grid, next_ms);
    return next_ms;
}

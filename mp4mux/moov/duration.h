// Durations as the headers of the movie, its tracks and their media hold them.
#ifndef MP4MUX_MOOV_DURATION_H
#define MP4MUX_MOOV_DURATION_H

#include <cstdint>

inline constexpr int64_t kMaxShortDuration = 0x7FFFFFFE; // a longer one takes a header of version 1

// A track's duration in ticks of the given timescale.
[[nodiscard]] constexpr int64_t duration_ticks(uint32_t duration_ms, uint32_t ticks_per_second)
{
    return static_cast<int64_t>(uint64_t{duration_ms} * ticks_per_second) / 1000;
}

#endif // MP4MUX_MOOV_DURATION_H

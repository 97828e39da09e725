// Finds out whether the units of a recording end in zeros.
#include "recovery/media_walk.h"

static constexpr int32_t kTriedFrames = 64;

// returns: the intact frames at the walk's place, at most kTriedFrames
static int32_t count_frames(const media_walk *begin, bool takes_zero_ends)
{
    media_walk walk = *begin;
    walk.takes_zero_ends = takes_zero_ends;
    int32_t frames = 0;
    walked_frame frame;
    while (frames < kTriedFrames && media_walk_next_intact(&walk, &frame) == kWalkFrame) {
        frames++;
    }
    return frames;
}

// A unit that has lost its last byte or two ends the intact frames only a little sooner.
bool media_walk_has_zero_ends(const media_walk *walk)
{
    return count_frames(walk, true) > 2 * count_frames(walk, false) + 1;
}

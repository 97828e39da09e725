// A recording as the recorder leaves it when it is interrupted.
#ifndef TESTS_RECOVERY_INTERRUPTED_RECORDING_H
#define TESTS_RECOVERY_INTERRUPTED_RECORDING_H

#include "tests/recovery/known_recording.h"

#include <vector>

struct interrupted_recording : known_recording {
    Bytes media;                      // not finished: head, size 0, frames
    std::vector<size_t> ends;         // of the frames in it
    Bytes journal;                    // all frames
    std::vector<size_t> journal_ends; // of its head and its groups
    std::vector<size_t> journaled;    // frames up to there
};

interrupted_recording make_interrupted(const recording_options &how, size_t frames_of_group = 6);

// A group that describes frames of these sizes, whose checksum is not that of any media data.
Bytes make_group(uint64_t media_begin, const std::vector<uint32_t> &frame_bytes);

#endif // TESTS_RECOVERY_INTERRUPTED_RECORDING_H

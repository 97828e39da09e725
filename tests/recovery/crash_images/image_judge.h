// Recovers an image and compares the result with what a normal stop would have made.
#ifndef TESTS_RECOVERY_CRASH_IMAGES_IMAGE_JUDGE_H
#define TESTS_RECOVERY_CRASH_IMAGES_IMAGE_JUDGE_H

#include "tests/recovery/crash_images/disk_image.h"
#include "tests/recovery/crash_images/recorded_truth.h"

#include <cstdint>
#include <string>

struct judge_figures {
    uint64_t frames = 0;         // that came back and were compared
    uint64_t lost = 0;           // whole ones after a hole that no record describes
    uint64_t stale = 0;          // of another recording, where no record describes the place
    uint64_t mixed = 0;          // of the right place and size, with stale bytes in them
    uint64_t equal_to_stop = 0;  // results with the bytes of a normal stop
    uint64_t extrapolated = 0;   // frames whose times are not from the journal
    uint64_t off_by_ms = 0;      // of these, with another time than the recorder's
    uint64_t finished_holes = 0; // complete movie boxes over media that is not complete
    uint64_t in_place_cuts = 0;  // recoveries in place that were cut and repeated
};

// Holds a recovery into another file to the truth.
// in: may_be_stale: what is not there may be bytes of another recording
// returns: what is wrong; empty when the image holds
std::string judge_image(const recorded_truth &truth, const disk_image &image, bool may_be_stale,
                        judge_figures *figures);

// returns: what the image has: for each frame a letter, a capital when it is journaled, or a dot or
//          colon when bytes are missing
std::string describe_image(const recorded_truth &truth, const disk_image &image);

// Recovers in place, cuts that at every call, and recovers again.
std::string judge_in_place(const recorded_truth &truth, const disk_image &image,
                           judge_figures *figures);

#endif // TESTS_RECOVERY_CRASH_IMAGES_IMAGE_JUDGE_H

// Recovers an image and compares the result with what a normal stop would have made.
#ifndef TESTS_RECOVERY_CRASH_IMAGES_IMAGE_JUDGE_H
#define TESTS_RECOVERY_CRASH_IMAGES_IMAGE_JUDGE_H

#include "tests/recovery/crash_images/disk_image.h"
#include "tests/recovery/crash_images/recorded_truth.h"

#include <cstdint>
#include <string>

struct judge_figures {
    uint64_t frames = 0;        // that came back and were compared
    uint64_t in_place_cuts = 0; // recoveries in place that were cut and repeated
};

// Holds a recovery into another file to the truth.
// in: may_be_stale: what is not there may be bytes of another recording
// returns: what is wrong; empty when the image holds
std::string judge_image(const recorded_truth &truth, const disk_image &image, bool may_be_stale,
                        judge_figures *figures);

// Recovers in place, cuts that at every call, and recovers again.
std::string judge_in_place(const recorded_truth &truth, const disk_image &image,
                           judge_figures *figures);

#endif // TESTS_RECOVERY_CRASH_IMAGES_IMAGE_JUDGE_H

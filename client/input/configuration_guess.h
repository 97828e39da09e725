// Searches for parameter sets with which pictures decode that have lost theirs.
//
// The slice headers show how many bits the numbers in them take; what remains is tried with a
// decoder. It cannot notice wrong offsets of the quantiser, wrong cropping, or a height that is too
// small: size, brightness and colours may be wrong.
#ifndef CLIENT_INPUT_CONFIGURATION_GUESS_H
#define CLIENT_INPUT_CONFIGURATION_GUESS_H

#include "client/input/picture_trial.h"

#include <functional>
#include <optional>

struct configuration_guess {
    std::vector<uint8_t> sets; // one sequence and one picture parameter set after start codes
    unsigned width = 0, height = 0;
    trial_verdict verdict;
};

// in: pictures: the first one an IDR picture
// in: on_trial: called before each trial; it may throw
// returns: the first guess without a complaint, or else the best one; nothing when none decodes
std::optional<configuration_guess>
configuration_guess_make(std::span<const std::vector<uint8_t>> pictures,
                         const std::function<void()> &on_trial);

#endif // CLIENT_INPUT_CONFIGURATION_GUESS_H

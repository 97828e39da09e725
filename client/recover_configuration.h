// The decoder configuration for pictures that have lost theirs. Whatever its source, a decoder must
// accept it with the first pictures.
#ifndef CLIENT_RECOVER_CONFIGURATION_H
#define CLIENT_RECOVER_CONFIGURATION_H

#include "client/input/picture_trial.h"
#include "client/options.h"
#include "client/recover_search.h"
#include "recovery/recovery.h"

#include <optional>
#include <string>
#include <vector>

// As many of the first pictures are tried, from the first key frame on.
inline constexpr size_t kTrialPictures = RECOVERY_FIRST_PICTURES;

struct found_configuration {
    std::vector<uint8_t> bytes; // for recovery_input_t
    std::string source;         // for the user
    bool is_guess = false;
};

// Tries the sources in their order: those that the options name, the finished recordings in the
// same folder, and at last a guess.
// out: remarks: a sentence about each source that was refused
// returns: the configuration; nothing when no source has one that fits
// throws: `failure` when a file that the options name cannot be read
std::optional<found_configuration> recover_configuration_find(const recover_options &options,
                                                              const broken_recording &broken,
                                                              const picture_list &pictures,
                                                              std::vector<std::string> &remarks);

#endif // CLIENT_RECOVER_CONFIGURATION_H

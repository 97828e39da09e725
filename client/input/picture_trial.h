// Judges with a decoder whether decoder configuration belongs to pictures.
#ifndef CLIENT_INPUT_PICTURE_TRIAL_H
#define CLIENT_INPUT_PICTURE_TRIAL_H

#include <cstdint>
#include <span>
#include <vector>

// Pictures in decoding order, each its NAL units after their lengths of 4 bytes.
using picture_list = std::vector<std::vector<uint8_t>>;

struct trial_verdict {
    bool is_judged = false; // false: no decoder is available
    size_t pictures = 0;
    size_t damaged = 0;    // that the decoder refused, repaired or left out
    size_t complaints = 0; // of the decoder, in all
};

// Decodes the pictures.
// in: sets: parameter sets after start codes
// returns: the verdict
trial_verdict picture_trial_run(std::span<const uint8_t> sets,
                                std::span<const std::vector<uint8_t>> pictures);

// returns: whether the decoder has nothing to say against the configuration
inline bool is_accepted(const trial_verdict &verdict)
{
    return verdict.damaged == 0 && verdict.complaints == 0;
}

#endif // CLIENT_INPUT_PICTURE_TRIAL_H

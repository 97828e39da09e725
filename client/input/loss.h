// What a recording misses: an account of the parts of the programme that did not arrive, arrived
// damaged, or did not fit the line of time.
#ifndef CLIENT_INPUT_LOSS_H
#define CLIENT_INPUT_LOSS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class loss_track { video, audio, both };

enum class loss_kind {
    pictures_missing,
    pictures_left_out,   // damaged
    pictures_damaged,    // kept
    pictures_ended,      // earlier than the sound
    pictures_unrecorded, // by the component, somewhere before this time
    sets_left_out,       // damaged parameter sets
    sound_missing,
    sound_overlaps,
    sound_left_out, // damaged
    sound_damaged,  // kept
    sound_ended,    // earlier than the pictures
    sound_unrecorded,
    clock_jump,
    broken_off, // the whole input
};

struct loss {
    loss_track track;
    loss_kind kind;
    int64_t at_us;
    int64_t length_us; // of a jump of the clock: negative where it stepped back
    unsigned units;    // pictures, parameter sets or packets of sound; 0 where they are unknown
};

// Further losses only count in the totals.
inline constexpr size_t kLossesListed = 1000;

inline constexpr size_t kLossKinds = static_cast<size_t>(loss_kind::broken_off) + 1;

struct loss_total {
    uint64_t places = 0;
    uint64_t units = 0;
    int64_t length_us = 0;
};

struct loss_account {
    std::vector<loss> entries; // by time, which counts from the programme's first picture
    uint64_t unlisted = 0;
    std::array<loss_total, kLossKinds> totals = {}; // by kind, with the unlisted ones
};

// Notes a loss for an account that takes it later. Where nobody takes them, their number is
// limited.
void loss_note(std::vector<loss> &noted, const loss &one);

// Adds a loss to the account; one that continues the last one of its kind extends it.
void loss_account_add(loss_account &account, const loss &one);

// returns: whether nothing is missing and nothing damaged
bool loss_account_is_complete(const loss_account &account);

// returns: the account of a part of the programme, with times from its begin
loss_account loss_account_of(const loss_account &account, int64_t begin_us, int64_t end_us);

// Adds the losses that another account does not list.
void loss_account_add_unlisted(loss_account &account, const loss_account &other);

// Removes what ended before a time, and what is not listed, which makes room in the list.
void loss_account_forget(loss_account &account, int64_t until_us);

// returns: how much of a track the recording lacks; what is damaged but kept does not count
loss_total loss_account_missing(const loss_account &account, loss_track track);

// returns: one word
const char *loss_verdict(const loss_account &account);

// returns: what happened, and what was done about it, for the user
const char *loss_what(loss_kind kind);
const char *loss_done(loss_kind kind);

// returns: "video", "audio" or "both"
const char *loss_track_name(loss_track track);

// returns: the totals in one line, such as "pictures 5.0 s in 2 places, sound 1.2 s in 1 place"
std::string loss_account_text(const loss_account &account);

#endif // CLIENT_INPUT_LOSS_H

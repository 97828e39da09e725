// Times of frames of which only the order in the file is known. Sound frames follow one another
// without a gap; pictures have their places among them. A recording's pictures and sounds are
// nearly in the order of their times, but either may come first by a constant time, and in bursts.
//
// A first pass notes every frame, a second pass asks for its time. The record begins with zeros.
#ifndef RECOVERY_PLACE_TIMES_H
#define RECOVERY_PLACE_TIMES_H

#include "recovery/steady_rate.h"

#include <cstdint>

inline constexpr int32_t kPlaces = 4096;
inline constexpr int32_t kMostGaps = 64;

struct picture_place {
    uint32_t picture; // its number
    uint32_t sounds;  // before it in the file
};

// A time without pictures.
struct picture_gap {
    uint32_t last_before;  // picture that is known to be before it
    uint32_t first_after;  // picture that is known to be after it
    double middle_ms;      // lead of the sounds over the pictures that only those after it exceed
    int64_t lost_pictures; // that fill it at the steady rate
};

struct place_times {
    uint32_t pictures; // noted, or asked for
    uint32_t sounds;
    uint32_t all_sounds;
    bool follows_sound;            // the next frame
    picture_place places[kPlaces]; // of pictures directly after a sound
    int32_t place_count;
    uint32_t stride; // at least, in pictures, from one place to the next
    double scratch[kPlaces];
    picture_gap gaps[kMostGaps];
    int32_t gap_count;
    int32_t holes[kMostGaps]; // first place after each; those beyond so many are not noted
    int32_t hole_count;

    // Known after the fit.
    steady_rate sound_rate;
    steady_rate picture_rate;
    int32_t passed_gaps;
    int64_t lost_pictures; // in the gaps passed
};

// in: type: MUX_TYPE_… of the next frame in the file
void place_times_note(place_times *times, int32_t type);

// Notes that frames of both kinds are lost before the next one: what is before the hole says
// nothing about the rate after it.
void place_times_note_hole(place_times *times);

// Ends the first pass.
// in: sample_rate: Hz
// in: known: of the pictures; zeros: the rate that fits best
void place_times_fit(place_times *times, int32_t sample_rate, steady_rate known);

// Finds out which of several sampling rates makes the pictures' rate a likely one. May be called
// before the fit.
// in: sample_rates: count of them in Hz, likeliest first
// returns: one of them
[[nodiscard]] int32_t place_times_choose_rate(place_times *times, const int32_t *sample_rates,
                                              int32_t count);

// Begins the second pass, or begins it again.
void place_times_rewind(place_times *times);

// returns: the time of the next frame in the file
[[nodiscard]] uint32_t place_times_next(place_times *times, int32_t type);

#endif // RECOVERY_PLACE_TIMES_H

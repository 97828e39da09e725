// The walk over media data that no table describes: finds the frames from their own syntax.
//
// A picture is a sequence of NAL units, each after its length of 4 bytes; it begins with a unit
// that begins an access unit and ends before the next one that does. A sound frame is a raw data
// block as our encoder writes it: long windows, no fill element, END, alignment with zeros. Where a
// place can be read as either, the walk looks ahead until one reading fails. After damage it
// continues at the first place from which frames follow one another; it never makes up a frame.
// source: ITU-T H.264, 7.4.1.2.3 (access units); ISO/IEC 14496-3, 4.4.2 (raw data blocks)
#ifndef RECOVERY_MEDIA_WALK_H
#define RECOVERY_MEDIA_WALK_H

#include "recovery/aac_frame.h"
#include "recovery/media_window.h"

#include <cstdint>

struct walked_frame {
    int32_t type;          // MUX_TYPE_…
    bool is_sync;          // a picture with an IDR slice
    bool has_sets;         // a picture with an SPS and a PPS
    int64_t offset;        // in the file
    int32_t size;          // bytes
    int64_t skipped_bytes; // damaged bytes between the last frame and this one
};

// A place that was tried as a sound frame.
struct tried_sound {
    int64_t offset;
    int32_t bytes; // that could be read; 0: no place
    int32_t sampling_index;
    aac_frame sound;
};

// The caller sets the first six fields; all others begin as 0.
struct media_walk {
    media_window *window;
    int64_t position;       // of the next byte to read
    int64_t end;            // of the media data
    int32_t sampling_index; // of the AAC frames, ISO/IEC 14496-3 Table 1.18; from 3 to 11
    int32_t channels;       // 1 or 2
    bool takes_zero_ends;   // a unit may end in a zero or two

    // What the walk knows from the frames so far.
    uint32_t first_types[2];    // a bit for each type of a first unit, of pictures without and with
                                // an IDR slice
    int32_t least_slices;       // of a picture
    int32_t most_slices;        // of a picture
    int64_t longest_unit_bytes; // of a picture
    int64_t paid_position;      // up to here, the way has paid for the work below
    int64_t work_bytes;         // looked at in vain or twice, less what the way has paid for
    tried_sound last_sound;     // a place is often tried as the end of a frame, then as a begin
};

// Finds the sampling index and the channels at which the sound frames parse.
// returns: false when no sound frame was found: the walk then finds pictures only
[[nodiscard]] bool media_walk_find_sound(media_walk *walk);

// Looks for zeros at the ends of units: a player that splits access units before the last three
// bytes of a start code leaves the first one at the end of the unit before. Else a unit that ends
// in zeros has lost its end. in: walk: at the first frame, with the sound's format returns: whether
// the first units of the recording end so
[[nodiscard]] bool media_walk_has_zero_ends(const media_walk *walk);

enum walk_result {
    kWalkFrame,
    kWalkEnd,      // no further whole frame: the rest is in skipped_bytes
    kWalkReadError // the source failed
};

// Finds the next whole frame at or after walk->position, and moves there. A movie box, even one
// that is not complete, ends the walk.
[[nodiscard]] walk_result media_walk_next(media_walk *walk, walked_frame *frame);

// Finds the frame at walk->position, as media_walk_next, but skips nothing.
// returns: kWalkEnd also where no frame is there
[[nodiscard]] walk_result media_walk_next_intact(media_walk *walk, walked_frame *frame);

// returns: whether the bytes are exactly some units: their lengths add up, each ends in its
// trailing
//          bits, and none has a sequence that no unit can contain
[[nodiscard]] bool are_whole_units(const uint8_t *bytes, int32_t count, bool takes_zero_ends);

// returns: the bytes of the sound frame at the begin of `bytes`; 0 when none is there or it is cut
[[nodiscard]] int32_t sound_frame_bytes(const uint8_t *bytes, int32_t count, int32_t sampling_index,
                                        int32_t channels);

#endif // RECOVERY_MEDIA_WALK_H

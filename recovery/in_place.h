// The muxer's view of a recording that is finished in place: its output is the recording itself.
// The media data is there, so that writes into it do nothing; the movie box goes to the target; the
// head, with the size of the media data, is held until the movie box is on the storage.
#ifndef RECOVERY_IN_PLACE_H
#define RECOVERY_IN_PLACE_H

#include "recovery/media_bounds.h"
#include "recovery/recovery.h"

#include <cstdint>

struct in_place_file {
    const recovery_target_t *target;
    const mp4_mux_init_t *scratch;      // callbacks of the other files
    uint8_t found[kRecorderHeadBytes];  // the head that the file has
    uint8_t opened[kRecorderHeadBytes]; // that of a recording that is not finished
    uint8_t closed[kRecorderHeadBytes]; // that of the finished recording
    int64_t opened_bytes;               // written so far
    int64_t position;
    int64_t end;       // of the file so far
    int64_t kept_end;  // of the last whole frame
    bool has_changed;  // the target
    bool is_discarded; // writes go nowhere: the recovery has failed
    bool has_failed;   // the target
};

// Makes a muxer's open parameters with the file as its output. Until release_in_place it is the
// only one of its thread.
// in: file: target, scratch, found and kept_end are set, all else is zero
[[nodiscard]] mp4_mux_init_t use_in_place(in_place_file *file);

// Ends the use.
void release_in_place(void);

// After a close of the muxer: syncs, writes the head of the finished recording, syncs.
// returns: false when the target failed
[[nodiscard]] bool finish_in_place(in_place_file *file);

#endif // RECOVERY_IN_PLACE_H

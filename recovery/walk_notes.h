// What a walk has found, noted by the first pass over the media data, so that the second one need
// not find it again: finding takes longer than all else. Notes that are too many for the buffer are
// in a scratch file; where that is not possible, nothing is noted.
#ifndef RECOVERY_WALK_NOTES_H
#define RECOVERY_WALK_NOTES_H

#include "mp4mux/mp4_mux.h"
#include "recovery/media_walk.h"

#include <cstdint>

inline constexpr uint32_t kWalkNoteWords = 1 << 14;

struct walk_notes {
    const mp4_mux_init_t *files; // callbacks and folder for the scratch file; null: none
    bool is_noted;               // all results so far
    bool is_replayed;
    void *file;
    char file_name[256];
    uint32_t used_words;            // of the buffer
    uint32_t read_words;            // the same, when it is read
    uint32_t words[kWalkNoteWords]; // of a frame: its kind and its bytes
};

// Begins the first pass.
// in: notes: files is set; all else is zero, or of an earlier pass
void walk_notes_begin(walk_notes *notes);

// Notes a frame, or the end of a walk.
// in: frame: null for the end
void walk_notes_add(walk_notes *notes, const walked_frame *frame);

// Begins the second pass. Where the first one is not noted, is_replayed stays false.
void walk_notes_rewind(walk_notes *notes);

// Reads the next result.
// in: offset: of the end of the frame before, or where the walk begins
// returns: false at the end of a walk, and when the notes have ended
[[nodiscard]] bool walk_notes_next(walk_notes *notes, int64_t offset, walked_frame *frame);

// Removes the scratch file. May be called twice.
void walk_notes_close(walk_notes *notes);

#endif // RECOVERY_WALK_NOTES_H

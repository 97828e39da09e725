// All whole frames of a recording in the order of the file: those of the journal, and those that
// the walk finds between its groups and after them.
#ifndef RECOVERY_FRAME_STREAM_H
#define RECOVERY_FRAME_STREAM_H

#include "recovery/journal_frames.h"
#include "recovery/media_bounds.h"
#include "recovery/media_walk.h"
#include "recovery/walk_notes.h"

#include <cstdint>

struct stream_frame {
    int32_t type; // MUX_TYPE_…
    uint32_t flags;
    int64_t offset;
    int32_t size;
    uint32_t time_ms; // if it is known
    bool is_timed;
    bool is_journaled;
    bool is_lost;          // a journaled frame whose bytes are not there
    int64_t skipped_bytes; // between the last frame and this one
};

enum stream_part { kPartNone, kPartGroup, kPartWalk, kPartEnded };

struct frame_stream {
    media_window *media;
    media_bounds bounds;
    media_format format;
    bool has_journal;
    journal_frames journal;
    bool has_group; // its frames come after those of the walk
    stream_part part;
    media_walk walk;
    walk_notes *notes;    // written, or replayed in place of the walk
    int64_t lesson_begin; // of intact frames that the walk can learn from; they end where it begins
    int64_t last_end;     // of the last whole frame
    int64_t media_end;    // at the end: of the media data
};

// in: journal: or null; begun, before its first group
// in: notes: begun or rewound
void frame_stream_begin(frame_stream *stream, media_window *media, const media_bounds *bounds,
                        const journal_frames *journal, media_format format, walk_notes *notes);

enum stream_result { kStreamFrame, kStreamLostFrame, kStreamEnd, kStreamReadError };

[[nodiscard]] stream_result frame_stream_next(frame_stream *stream, stream_frame *frame);

#endif // RECOVERY_FRAME_STREAM_H

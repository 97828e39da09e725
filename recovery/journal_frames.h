// The frames of a journal, group after group, each checked against the media data.
#ifndef RECOVERY_JOURNAL_FRAMES_H
#define RECOVERY_JOURNAL_FRAMES_H

#include "journal/journal.h"
#include "recovery/media_window.h"

#include <cstdint>

// How the frames of a recording are read.
struct media_format {
    int32_t sampling_index; // of the sound; 0: none
    int32_t channels;
    bool takes_zero_ends; // see media_walk
};

struct journaled_frame {
    int32_t type; // MUX_TYPE_…
    uint32_t flags;
    uint32_t time_ms;
    int64_t offset; // in the media file
    uint32_t bytes;
    bool is_whole;
};

struct journal_frames {
    media_window *media;
    media_window *journal;
    uint64_t session;
    media_format format;
    int64_t position;          // in the journal, of the next group
    int64_t search_left_bytes; // through which groups after a damaged one may still be searched
    int64_t media_end;         // of the frames of all groups so far
    journal_group_reader_t group;
    bool has_matched; // the group's checksum is that of the media data
    int64_t frame_offset;
};

// Begins before the first group.
// in: head_bytes: of the journal's head
void journal_frames_begin(journal_frames *frames, media_window *media, media_window *journal,
                          uint64_t session, media_format format, int64_t head_bytes);

enum group_result {
    kGroupOpened,
    kGroupsEnded,   // also where the journal cannot be read
    kGroupReadError // the media file
};

// Opens the next group whose frames are after those of the last one. A damaged one is skipped when
// another can be found.
[[nodiscard]] group_result journal_frames_open_group(journal_frames *frames);

// Reads the next frame of the group and checks it.
// returns: false after the last one
[[nodiscard]] bool journal_frames_next(journal_frames *frames, journaled_frame *frame);

enum journal_fit { kJournalFits, kJournalOfOtherFile, kJournalFitUnknown };

// Decides whether a journal describes the media data, and rewinds it.
// returns: kJournalFitUnknown when the media file could not be read
[[nodiscard]] journal_fit find_journal_fit(journal_frames *frames);

#endif // RECOVERY_JOURNAL_FRAMES_H

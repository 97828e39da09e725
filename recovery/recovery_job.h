// One recovery: what its steps share.
#ifndef RECOVERY_RECOVERY_JOB_H
#define RECOVERY_RECOVERY_JOB_H

#include "recovery/frame_stream.h"
#include "recovery/frame_times.h"
#include "recovery/recovery.h"
#include "recovery/scratch_tables.h"

#include <cstdint>

struct recovery_job {
    const recovery_input_t *input;
    recovery_report_t *report;
    media_window media;
    media_window journal;
    media_bounds bounds;
    bool has_journal; // it is used
    journal_frames journal_begin;
    journal_settings_t settings; // of the journal, or those that every recording has
    media_format format;
    frame_times times;
    scratch_tables tables;
    walk_notes notes;
    bool has_tables; // they give times

    // What the scan finds.
    int64_t sets_offset; // of the first picture with an SPS and a PPS
    int32_t sets_bytes;  // of that picture; 0 for none
    recovery_frame_t first_pictures[RECOVERY_FIRST_PICTURES]; // from the first key frame on
    int32_t first_picture_count;
    int64_t last_end;       // of the last whole frame
    uint32_t passed_frames; // of the pass that uses them
    uint8_t *record;        // decoder configuration made from the media

    int64_t passed_bytes;   // of the passes before this one
    int64_t progress_bytes; // as last reported
    int32_t passes;
};

inline constexpr char kNoMemory[] = "There is not enough memory";

// Sets the message of a failure.
// returns: code
int32_t fail_recovery(recovery_job *job, int32_t code, const char *message);

// Opens the files and decides what to use.
// in: job: input and report are set, all else is zero
// in: passes: over the media data
// returns: RECOVERY_DONE or RECOVERY_ERR_…; the job is to be closed in either case
[[nodiscard]] int32_t open_job(recovery_job *job, int32_t passes);

// Frees the memory.
void close_job(recovery_job *job);

// returns: the result of the failure that the window had
int32_t fail_to_read(recovery_job *job);

#endif // RECOVERY_RECOVERY_JOB_H

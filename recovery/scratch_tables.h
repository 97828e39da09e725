// The times of pictures from the scratch files that the muxer keeps its tables in while it records.
// They exist only for long recordings, and lack the last records.
#ifndef RECOVERY_SCRATCH_TABLES_H
#define RECOVERY_SCRATCH_TABLES_H

#include "recovery/media_window.h"

#include <cstdint>

struct scratch_tables {
    media_window window[RECOVERY_TABLE_COUNT];
    int64_t index;      // of the picture that the time below is of
    int64_t ticks;      // its time
    int64_t run;        // of durations, that the picture is in
    int64_t run_left;   // pictures in it, from this one on
    int32_t run_ticks;  // duration of each
    int64_t matches;    // pictures found so far
    bool is_mismatched; // a picture is not where the tables have it: they are of another file
};

// Opens the tables that are there.
// in: tables: zero
// returns: false when one of them fails
[[nodiscard]] bool scratch_tables_open(scratch_tables *tables,
                                       const recovery_source_t *const *sources);

// Begins with the first picture again.
void scratch_tables_rewind(scratch_tables *tables);

// Looks up the next picture of the media data.
// out: time_ms: its time
// returns: false when the tables do not have it
[[nodiscard]] bool scratch_tables_find(scratch_tables *tables, int64_t offset, int32_t size,
                                       uint32_t *time_ms);

// Frees the memory. May be called twice.
void scratch_tables_close(scratch_tables *tables);

#endif // RECOVERY_SCRATCH_TABLES_H

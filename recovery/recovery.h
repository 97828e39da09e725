// Recovery of an interrupted recording: finds the whole frames in a file without a movie box and
// muxes them again, with the recorder's own settings. With the recording's journal, the result has
// the same bytes as a normal stop after its last whole frame; without it, times are those of the
// steady rates that fit best.
//
// The library needs no decoder and no operating system: it reads and writes through callbacks, and
// its memory does not grow with the length of a recording. docs/recovery.md shows how to use it.
#ifndef RECOVERY_RECOVERY_H
#define RECOVERY_RECOVERY_H

#include "mp4mux/mp4_mux.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Results.
enum {
    RECOVERY_DONE = 0,
    RECOVERY_ERR_INVALID = -1,       // an invalid argument
    RECOVERY_ERR_MEMORY = -2,        // no memory
    RECOVERY_ERR_READ = -3,          // the media could not be read
    RECOVERY_ERR_WRITE = -4,         // the output could not be written
    RECOVERY_ERR_FORMAT = -5,        // not a file of the recorder
    RECOVERY_ERR_WHOLE = -6,         // the file has its movie box: nothing to recover
    RECOVERY_ERR_NOTHING = -7,       // no whole picture is in the file
    RECOVERY_ERR_CONFIGURATION = -8, // no decoder configuration for the pictures
    RECOVERY_ERR_HOLES = -9,         // in place: the frames do not follow one another
    RECOVERY_ERR_CANCELLED = -10     // the progress callback asked to end
};

// The scratch files that a muxer without a movie box may have left. Where they are complete enough
// they give exact times; null, or a size of 0, where there is none.
enum {
    RECOVERY_TABLE_VIDEO_SIZES = 0,     // v_stsz.tmp
    RECOVERY_TABLE_VIDEO_OFFSETS = 1,   // v_stco.tmp
    RECOVERY_TABLE_VIDEO_DURATIONS = 2, // v_stts_dts.tmp
    RECOVERY_TABLE_COUNT = 3
};

// A file to read.
typedef struct recovery_source_t {
    void *context;
    // returns: the bytes read, fewer than count only at the end; negative on a failure
    int64_t (*read_at)(void *context, int64_t offset, void *buffer, int64_t count);
    // returns: the file's size in bytes; negative on a failure
    int64_t (*size)(void *context);
} recovery_source_t;

// A file that is finished in place: the source and these.
typedef struct recovery_target_t {
    void *context;
    // returns: 0, or negative on a failure, also when fewer bytes are written
    int32_t (*write_at)(void *context, int64_t offset, const void *bytes, int64_t count);
    // Cuts the file.
    int32_t (*set_size)(void *context, int64_t bytes);
    // Waits until everything written is on the storage.
    int32_t (*sync)(void *context);
} recovery_target_t;

// One frame that comes back.
typedef struct recovery_frame_t {
    int32_t type;   // MUX_TYPE_…
    uint32_t flags; // MUX_FRAME_…
    int64_t offset; // in the media file
    int32_t size;   // bytes
    uint32_t time_ms;
    int32_t is_journaled; // 1: its record is in the journal
} recovery_frame_t;

// A part of the media data that belongs to no whole frame.
typedef struct recovery_hole_t {
    int64_t offset;
    int64_t bytes;
    int32_t is_end; // 1: the cut frame at the end of the file, which is no hole
} recovery_hole_t;

// The pictures that a decoder configuration can be tried with, at most.
enum { RECOVERY_FIRST_PICTURES = 30 };

typedef struct recovery_input_t {
    recovery_source_t media;
    const recovery_source_t *journal;                      // or null
    const recovery_source_t *tables[RECOVERY_TABLE_COUNT]; // or null
    // Decoder configuration without a journal: parameter sets after start codes (Annex B), or an
    // avcC record. Not used where the access units carry their own.
    const uint8_t *configuration;
    int32_t configuration_bytes;
    int32_t sample_rate;     // Hz, without a journal; 0: the one at which the frames parse
    uint32_t frame_rate_num; // pictures per frame_rate_den seconds, without a journal; 0: the one
    uint32_t frame_rate_den; // ... that fits best
    void *context;           // of the callbacks below, each of which may be null
    // About every MiB. done_bytes and all_bytes count the passes over the media file.
    // returns: 0 to continue
    int32_t (*progress)(void *context, int64_t done_bytes, int64_t all_bytes);
    // Once for each, in the order of the file, when all frames have been found.
    void (*frame)(void *context, const recovery_frame_t *frame);
    void (*hole)(void *context, const recovery_hole_t *hole);
    // When the frames have been found, before anything is written, and there is no decoder
    // configuration for them.
    // in: pictures: the first ones, from the first key frame on; without times
    // out: configuration: as above; it stays valid until the recovery ends
    // returns: its bytes, 0 when there is none, or below 0 to end the recovery
    int32_t (*configure)(void *context, const recovery_frame_t *pictures, int32_t count,
                         const uint8_t **configuration);
} recovery_input_t;

// Where something was taken from.
enum {
    RECOVERY_FROM_NOTHING = 0,
    RECOVERY_FROM_JOURNAL = 1,
    RECOVERY_FROM_TABLES = 2, // times: the scratch files
    RECOVERY_FROM_MEDIA = 3,  // configuration: in band; times: steady rates
    RECOVERY_FROM_CALLER = 4
};

enum {
    RECOVERY_JOURNAL_NONE = 0,
    RECOVERY_JOURNAL_USED = 1,          // up to its last group
    RECOVERY_JOURNAL_DAMAGED = 2,       // its head cannot be read: not used
    RECOVERY_JOURNAL_OTHER_VERSION = 3, // written by another version: not used
    RECOVERY_JOURNAL_OTHER_FILE = 4     // describes another file: not used
};

typedef struct recovery_report_t {
    int64_t file_bytes;
    int64_t media_bytes; // of the frames that come back
    uint32_t pictures;
    uint32_t sounds;
    uint32_t journaled_frames; // of both
    uint32_t holes;            // the cut frame at the end is not counted
    int64_t hole_bytes;
    int64_t end_bytes;          // after the last whole frame
    int32_t journal;            // RECOVERY_JOURNAL_…
    uint32_t journal_version;   // of RECOVERY_JOURNAL_OTHER_VERSION
    int32_t configuration_from; // RECOVERY_FROM_…
    int32_t times_from;         // RECOVERY_FROM_…, of the pictures without a journal record; ...
                                // RECOVERY_FROM_JOURNAL when there is none
    uint32_t last_ms;           // time of the last picture
    int32_t sample_rate;
    int32_t channels;
    uint32_t frame_rate_num; // of the times that are not exact; 0: none was needed
    uint32_t frame_rate_den;
    int32_t has_parameter_sets; // 1: a picture carries an SPS and a PPS
    int32_t mux_error;          // of RECOVERY_ERR_WRITE: MUX_ERR_…, or 0
    char message[200];          // of an error, as a sentence without a full stop; else empty
} recovery_report_t;

// Looks for the frames and reports them, without a change.
// returns: RECOVERY_DONE, or RECOVERY_ERR_…; the report is filled as far as possible
int32_t recovery_scan(const recovery_input_t *input, recovery_report_t *report);

// Muxes the frames into a new file.
// in: output: callbacks, name or handle, scratch directory and cache memory of the muxer. Streams
//     and options come from the recording. The scratch files have the names of the tables of
//     `input`: another directory than theirs.
// in: close_memory: lent for the close; may be null
// returns: as recovery_scan, or RECOVERY_ERR_WRITE, RECOVERY_ERR_CONFIGURATION
int32_t recovery_write(const recovery_input_t *input, const mp4_mux_init_t *output,
                       mp4_mux_closemem_t *close_memory, recovery_report_t *report);

// Finishes the media file itself: cuts the bytes after the last whole frame, writes the movie box,
// syncs, writes the size of the media data, syncs. Interrupted at any write, it can be repeated. A
// file that is whole is synced only.
// in: target: writes to the file of input->media
// in: scratch: as `output` of recovery_write, for the scratch files; its name or handle is not used
// thread: one at a time on each thread
// returns: as recovery_write, or RECOVERY_ERR_HOLES, with nothing changed
int32_t recovery_in_place(const recovery_input_t *input, const recovery_target_t *target,
                          const mp4_mux_init_t *scratch, mp4_mux_closemem_t *close_memory,
                          recovery_report_t *report);

#ifdef __cplusplus
}
#endif

#endif // RECOVERY_RECOVERY_H

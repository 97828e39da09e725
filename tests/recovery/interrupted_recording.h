// A recording as the recorder leaves it when it is interrupted, beside what a normal stop after any
// of its frames would have left.
#ifndef TESTS_RECOVERY_INTERRUPTED_RECORDING_H
#define TESTS_RECOVERY_INTERRUPTED_RECORDING_H

#include "journal/journal.h"
#include "recovery/recovery.h"
#include "tests/support/mux_recording.h"

#include <string>
#include <vector>

namespace recovery_test {

struct frame {
    int32_t type;
    Bytes bytes;
    uint32_t time_ms;
    bool is_key;
};

struct options {
    const char *name;
    bool has_sets_in_band = false;
    bool has_sound = true;
    int32_t channels = 2;
    int32_t sample_rate = 48000;
    size_t frames_of_group = 6;
    size_t pictures = 12;
    uint32_t jitter_ms = 0; // of the pictures' times
    size_t slices = 1;      // above 1: of a picture that is made up
};

struct recording {
    options how;
    std::vector<frame> frames;
    Bytes media;                      // not finished: head, size 0, frames
    std::vector<size_t> ends;         // of the frames in it
    Bytes journal;                    // all frames
    std::vector<size_t> journal_ends; // of its head and its groups
    std::vector<size_t> journaled;    // frames up to there
};
recording make_recording(const options &how);

// A group that describes frames of these sizes, whose checksum is not that of any media data.
Bytes make_group(uint64_t media_begin, const std::vector<uint32_t> &frame_bytes);

// returns: the file of a normal stop after the frames whose numbers are given
Bytes normal_stop(const recording &of, const std::vector<size_t> &numbers);
Bytes normal_stop(const recording &of, size_t frames); // after the first ones

// A file in memory, as a source and as a target that ends in a crash.
struct memory_file {
    Bytes bytes;
    size_t calls_left = SIZE_MAX;   // until every call that changes it fails
    size_t reads_left = SIZE_MAX;   // until every read fails
    size_t reads_to_cut = SIZE_MAX; // until the file loses its last bytes
};
recovery_source_t source_of(memory_file *file);
recovery_target_t target_of(memory_file *file);

struct result {
    int32_t code;
    recovery_report_t report;
    Bytes file; // of a recovery that succeeded
};

// Runs recovery_write; recovery_scan must agree with it.
// in: journal: or null
// in: configuration: of the input
// in: tables: RECOVERY_TABLE_COUNT of them, or null
result recover(const Bytes &media, const Bytes *journal, const Bytes &configuration = {},
               const Bytes *tables = nullptr);

// Runs recovery_in_place on the file, which is also in the result.
// in: layout: of the muxer's caches
// in: journal_reads: until every read of the journal fails
result finish_in_place(memory_file *media, const Bytes *journal, const Bytes &configuration = {},
                       mux_test::cache_layout layout = mux_test::cache_layout::own,
                       size_t journal_reads = SIZE_MAX);

Bytes programme_sets(); // the parameter sets of the sample programme, with start codes

} // namespace recovery_test

#endif // TESTS_RECOVERY_INTERRUPTED_RECORDING_H

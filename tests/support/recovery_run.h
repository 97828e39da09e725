// Recoveries of files in memory.
#ifndef TESTS_SUPPORT_RECOVERY_RUN_H
#define TESTS_SUPPORT_RECOVERY_RUN_H

#include "recovery/recovery.h"
#include "tests/support/programme.h"

#include <optional>
#include <vector>

// What an interrupted recording has left.
struct interrupted_files {
    Bytes media;
    std::optional<Bytes> journal = {};
    Bytes configuration = {}; // of the input
    Bytes tables[RECOVERY_TABLE_COUNT] = {};
    size_t journal_reads = SIZE_MAX; // until every read fails
    size_t media_reads = SIZE_MAX;   // the same
    size_t reads_to_cut = SIZE_MAX;  // until the media file loses its last bytes
};

struct recovered {
    int32_t code;
    recovery_report_t report;
    std::vector<recovery_frame_t> frames;
    Bytes file; // of a recovery that succeeded
};

// The bytes must stay where they are.
recovery_source_t source_of(const Bytes &bytes);

recovered scan_files(const interrupted_files &files);

// Writes another file in memory.
recovered recover_files(const interrupted_files &files);

// Finishes the media file.
// in: calls_left: until every call fails; a write that fails first has written its first half
recovered recover_in_place(interrupted_files *files, size_t calls_left = SIZE_MAX);

#endif // TESTS_SUPPORT_RECOVERY_RUN_H

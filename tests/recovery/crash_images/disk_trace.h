// What a program does to the files of one folder, call by call: the calls of the C library and of
// the system that change a file are wrapped (see CMakeLists.txt) and noted in their order.
#ifndef TESTS_RECOVERY_CRASH_IMAGES_DISK_TRACE_H
#define TESTS_RECOVERY_CRASH_IMAGES_DISK_TRACE_H

#include "tests/support/normal_stop.h"

#include <string>
#include <vector>

enum class disk_call {
    create, // an empty file, in place of what was there
    write,
    sync,
    remove
};

struct disk_event {
    disk_call call;
    size_t file; // of disk_trace::names
    int64_t offset = 0;
    Bytes bytes = {};
    size_t begun_at = 0; // of a sync: it covers the events before this one
};

struct disk_trace {
    std::vector<std::string> names; // full paths; the folder itself, with its slash, is synced
    std::vector<disk_event> events;
};

// Begins to note what happens below the folder, which ends with a slash. Syncs of its files only
// count: they return at once.
void begin_disk_trace(const std::string &folder);

// Waits until syncs that have returned cover every write to the file so far, and the folder.
// returns: false when none came within a minute
bool wait_until_synced(const std::string &name);

disk_trace end_disk_trace();

// What the component gives to the muxer.
struct traced_mux {
    muxer_settings settings;
    std::vector<muxed_frame> frames;
};

// Notes it for the next recording; null: nothing.
// in: has_tiny_caches: the muxer gets only a few bytes of its caches
void trace_mux(traced_mux *mux, bool has_tiny_caches);

#endif // TESTS_RECOVERY_CRASH_IMAGES_DISK_TRACE_H

// The files that a storage can have after a crash in the middle of a trace.
//
// The storage writes pages, in any order. A page that has reached it is in one of the states in
// which it has been since it was last synced; whatever a returned sync covers is there. A file's
// size may include pages that are not there: they are zeros, or what an earlier file has left.
#ifndef TESTS_RECOVERY_CRASH_IMAGES_DISK_IMAGE_H
#define TESTS_RECOVERY_CRASH_IMAGES_DISK_IMAGE_H

#include "tests/recovery/crash_images/disk_trace.h"

#include <functional>
#include <optional>

inline constexpr int64_t kPageBytes = 4096;
inline constexpr int64_t kSectorBytes = 512;

// The files by their index in the trace; empty: does not exist.
using disk_image = std::vector<std::optional<Bytes>>;

struct crash {
    size_t events = 0;      // of the trace, before the crash
    int64_t torn_bytes = 0; // of the write after them
    // Whether an event that no sync covers has reached the storage; for a write, asked for each of
    // its pages, for other events of page 0. Empty: all have.
    std::function<bool(size_t event, int64_t page)> is_there = {};
    bool has_all_sizes = true;    // sizes include the pages that are not there
    const Bytes *stale = nullptr; // repeated in these pages; null: zeros
};

disk_image make_disk_image(const disk_trace &trace, const crash &crash);

// returns: the events before `events`, syncs apart, that no returned sync covers
std::vector<size_t> unsynced_events(const disk_trace &trace, size_t events);

#endif // TESTS_RECOVERY_CRASH_IMAGES_DISK_IMAGE_H

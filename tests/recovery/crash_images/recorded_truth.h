// A recording whose every frame and every file call is known.
#ifndef TESTS_RECOVERY_CRASH_IMAGES_RECORDED_TRUTH_H
#define TESTS_RECOVERY_CRASH_IMAGES_RECORDED_TRUTH_H

#include "recovery/recovery.h"
#include "tests/recovery/crash_images/disk_trace.h"
#include "tests/support/normal_stop.h"

#include <string>
#include <vector>

// A group of the journal.
struct recorded_group {
    int64_t begin; // in the journal
    int64_t end;
    size_t first_frame;
    size_t frames;
};

inline constexpr size_t kNoFile = SIZE_MAX;

struct recorded_truth {
    std::string name;
    disk_trace trace;
    size_t media; // of disk_trace::names
    size_t journal;
    size_t tables[RECOVERY_TABLE_COUNT];
    muxer_settings settings;
    std::vector<muxed_frame> frames;
    std::vector<recorded_group> groups;
    Bytes finished; // the file after the normal stop
    Bytes journal_bytes;
    int64_t media_end;
};

struct record_options {
    std::string name;
    const char *checkpoint_ms; // the property; empty: none
    size_t first_picture;      // of the sample programme
    size_t pictures;
    bool has_audio;
    bool has_sets_in_band = false;
    bool has_tiny_caches = false; // of the muxer
};

// Records with the component, through its buffer callback.
recorded_truth record_with_component(const record_options &options);

#endif // TESTS_RECOVERY_CRASH_IMAGES_RECORDED_TRUTH_H

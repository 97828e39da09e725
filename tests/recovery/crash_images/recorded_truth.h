// A recording whose every frame and every file call is known.
#ifndef TESTS_RECOVERY_CRASH_IMAGES_RECORDED_TRUTH_H
#define TESTS_RECOVERY_CRASH_IMAGES_RECORDED_TRUTH_H

#include "mp4mux/mp4_mux.h"
#include "recovery/recovery.h"
#include "tests/recovery/crash_images/disk_trace.h"

#include <string>
#include <vector>

struct recorded_frame {
    int32_t type;
    uint32_t flags;
    uint32_t time_ms;
    int64_t offset; // in the media file
    Bytes bytes;
};

// What the muxer was opened with. The pointers of the input are not used.
struct recorded_settings {
    uint32_t stream_flags;
    uint32_t options;
    mp4_mux_input_t input;
    Bytes video_configuration;
    Bytes audio_configuration;
};

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
    recorded_settings settings;
    std::vector<recorded_frame> frames;
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
    bool has_sound;
    bool has_sets_in_band;
};

// Records with the component, through its buffer callback.
recorded_truth record_with_component(const record_options &options);

// Records frames with the muxer itself, with caches of a few bytes and a journal.
// in: group_frames: in each group
recorded_truth record_with_tiny_caches(const std::string &name, const recorded_truth &frames_of,
                                       size_t frames, size_t group_frames);

// returns: the file of a normal stop after these frames
Bytes finish_recording(const recorded_settings &settings,
                       const std::vector<recorded_frame> &frames);

#endif // TESTS_RECOVERY_CRASH_IMAGES_RECORDED_TRUTH_H

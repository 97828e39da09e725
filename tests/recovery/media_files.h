// Recordings whose frames are known, made with the encoder and the muxer.
#ifndef TESTS_RECOVERY_MEDIA_FILES_H
#define TESTS_RECOVERY_MEDIA_FILES_H

#include "recovery/media_walk.h"
#include "tests/support/programme.h"

#include <string>
#include <vector>

struct TrueFrame {
    int32_t type;
    int64_t offset;
    int32_t size;
    bool is_sync;
    uint32_t time_ms;

    bool operator==(const TrueFrame &) const = default;
};

struct MediaFile {
    std::string name;
    Bytes bytes;
    int32_t channels;
    int32_t sampling_index; // the lowest one with the same bands
    std::vector<TrueFrame> frames;
};

struct FileOptions {
    const char *name;
    bool is_sample_video; // else made pictures
    int32_t slices;       // of a made picture; 0: from 1 to 5
    bool has_sets;        // in the made key frames, and delimiters before all made pictures
    int32_t sample_rate;
    int32_t channels; // 0: no sound
    int32_t bit_rate;
    int32_t pns, tns, mid_side;
    int32_t lead; // sounds before the pictures of their time; negative: after
};

// One file for each row of the table.
const std::vector<MediaFile> &media_files();

// A file in memory.
recovery_source_t source_of(const Bytes &bytes);

#endif // TESTS_RECOVERY_MEDIA_FILES_H

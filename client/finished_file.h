// What a finished recording holds, read from the file itself.
#ifndef CLIENT_FINISHED_FILE_H
#define CLIENT_FINISHED_FILE_H

#include <cstdint>
#include <optional>

struct track_summary {
    uint64_t frames = 0;
    uint64_t bytes = 0; // of the frames together
};

struct file_summary {
    uint64_t bytes = 0;
    double duration_s = 0;
    track_summary video;
    track_summary audio;
};

// Reads an MP4 file. returns nothing when the file is not whole.
std::optional<file_summary> finished_file_read(int file);

#endif

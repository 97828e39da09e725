// What a finished recording holds, read from the file itself.
#ifndef CLIENT_FINISHED_FILE_H
#define CLIENT_FINISHED_FILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct track_summary {
    uint64_t frames = 0;
    uint64_t bytes = 0; // of the frames together
};

struct file_summary {
    uint64_t bytes = 0;
    double duration_s = 0;
    track_summary video;
    track_summary audio;
    std::vector<std::string> faults; // what the reader finds wrong with the file
    std::vector<std::string> notes;  // what it left unread
};

// Reads an MP4 file. returns nothing when it has no movie box, without which nobody can play it.
// throws `failure` when the file cannot be read at all.
std::optional<file_summary> finished_file_read(int file);

// What reading the file back told, in one sentence for each kind.
std::vector<std::string> finished_file_remarks(const file_summary &file);

#endif // CLIENT_FINISHED_FILE_H

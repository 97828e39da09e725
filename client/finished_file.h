// The contents of a finished file, read back from the file itself.
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
    std::vector<std::string> faults; // found by the reader
    std::vector<std::string> notes;  // on parts that the reader left out
};

// Reads an MP4 file.
// returns: nothing when there is no movie box, without which no player can open the file
// throws: `failure` when the file cannot be read at all
std::optional<file_summary> finished_file_read(int file);

// returns: one sentence each on the faults and the notes, if there are any
std::vector<std::string> finished_file_remarks(const file_summary &file);

#endif // CLIENT_FINISHED_FILE_H

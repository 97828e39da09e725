// The boxes of a file, and the faults and notes that the reading of them collects.
#ifndef MP4READ_BOX_READER_H
#define MP4READ_BOX_READER_H

#include "mp4read/cursor.h"
#include "mp4read/mp4_reader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace mp4_reader {

// The state of reading one file.
struct reading {
    std::function<void()> pause; // see read_movie
    std::vector<std::string> faults, notes;
    std::string where;             // prefix of each fault and note, such as "track 1: "
    size_t boxes = 0, samples = 0; // read so far
};

// Adds a fault unless the condition holds.
// returns: the condition
bool check(reading &state, bool valid, const std::string &text);

// Adds a note, not a fault, unless the file is within a limit of this reader.
// returns: the condition
bool limit(reading &state, bool within, const std::string &text);

// Reads a sequence of boxes and those inside them.
// in: the depth of the sequence; 0 is the file itself, whose last box may have size 0
std::vector<box> read_boxes(reading &state, bytes image, unsigned depth);

} // namespace mp4_reader

#endif // MP4READ_BOX_READER_H

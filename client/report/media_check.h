// Finds faults of an MP4 file beyond the form of its boxes: frames that are not at the place or of
// the kind that the tables state, and headers that contradict the tables.
#ifndef CLIENT_REPORT_MEDIA_CHECK_H
#define CLIENT_REPORT_MEDIA_CHECK_H

#include "mp4read/mp4_reader.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct media_findings {
    std::vector<std::string> faults;  // a player may fail on these
    std::vector<std::string> remarks; // worth knowing
};

// in: a movie and the image of the whole file that it was read from
// returns: what was found, without the faults that the reader reported
media_findings media_check(const mp4_reader::movie &movie, std::span<const uint8_t> image);

// returns: false where the recorder was given no sound: the only frame is then one of silence,
//          because players refuse an empty track
bool carries_audio(const mp4_reader::track &audio);

#endif // CLIENT_REPORT_MEDIA_CHECK_H

// Where the media data of a recording begins and ends, from its head and from what is after it.
#ifndef RECOVERY_MEDIA_BOUNDS_H
#define RECOVERY_MEDIA_BOUNDS_H

#include "recovery/media_window.h"

#include <cstdint>

// The recorder's head: file type, spare box, header of the media data.
inline constexpr int64_t kRecorderHeadBytes = 36;

enum head_kind {
    kHeadIntact,
    kHeadLost,   // zeros, or nothing: a head that never reached the storage
    kHeadForeign // other bytes
};

struct media_bounds {
    head_kind head;
    int64_t begin;     // of the first frame
    int64_t end;       // of the media data, at most the file's
    bool has_movie;    // a movie box is where the media data ends
    bool is_movie_cut; // and lacks something
};

// returns: false when the source failed
[[nodiscard]] bool find_media_bounds(media_window *window, media_bounds *bounds);

// Shows all of a part of the file.
// returns: the bytes, valid until the window's next use; null when the file is shorter, the source
//          fails or memory is short
[[nodiscard]] const uint8_t *show_part(media_window *window, int64_t offset, int64_t count);

#endif // RECOVERY_MEDIA_BOUNDS_H

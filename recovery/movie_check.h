// Whether a movie box lacks something: a crash can leave any part of it unwritten.
#ifndef RECOVERY_MOVIE_CHECK_H
#define RECOVERY_MOVIE_CHECK_H

#include "recovery/media_window.h"

#include <cstdint>

// Checks a movie box: each box in it ends where the next one begins, down to the sample tables,
// whose records are as many as they say and not zero.
// in: position: of the movie box
[[nodiscard]] bool is_movie_complete(media_window *window, int64_t position);

// Looks for a part of the media data that never reached the storage: more zeros than any frame has.
[[nodiscard]] bool has_lost_media(media_window *window, int64_t begin, int64_t end);

#endif // RECOVERY_MOVIE_CHECK_H

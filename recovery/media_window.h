// Reads a file through a buffer that grows to the longest part asked for, up to a limit.
#ifndef RECOVERY_MEDIA_WINDOW_H
#define RECOVERY_MEDIA_WINDOW_H

#include "recovery/recovery.h"

#include <cstdint>

inline constexpr int64_t kLongestFrameBytes = 64 << 20;

struct media_window {
    const recovery_source_t *source;
    int64_t file_bytes;
    uint8_t *buffer;
    int64_t buffer_bytes;
    int64_t begin;   // file offset of the buffer's first byte
    int64_t valid;   // its valid bytes
    bool has_failed; // a read failed
};

// returns: false when the size cannot be found
[[nodiscard]] bool media_window_open(media_window *window, const recovery_source_t *source);

// Shows bytes of the file.
// out: available: at most count; fewer at the end of the file, after a failed read and without
//      memory
// returns: the bytes, valid until the next call; null when none are available
[[nodiscard]] const uint8_t *media_window_show(media_window *window, int64_t offset, int64_t count,
                                               int64_t *available);

// Frees the buffer. May be called twice.
void media_window_close(media_window *window);

#endif // RECOVERY_MEDIA_WINDOW_H

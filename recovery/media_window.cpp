#include "recovery/media_window.h"

#include <algorithm>
#include <cstdlib>

static constexpr int64_t kFirstBufferBytes = 1 << 18;

bool media_window_open(media_window *window, const recovery_source_t *source)
{
    *window = {.source = source};
    window->file_bytes = source->size(source->context);
    return window->file_bytes >= 0;
}

static bool reserve(media_window *window, int64_t bytes)
{
    if (bytes <= window->buffer_bytes) {
        return true;
    }
    const int64_t grown_bytes = std::max({bytes, 2 * window->buffer_bytes, kFirstBufferBytes});
    void *const grown = realloc(window->buffer, static_cast<size_t>(grown_bytes));
    if (grown == nullptr) {
        return false;
    }
    window->buffer = static_cast<uint8_t *>(grown);
    window->buffer_bytes = grown_bytes;
    return true;
}

// Fills the buffer from `offset` on, as far as the file reaches.
static void fill(media_window *window, int64_t offset)
{
    const int64_t want = std::min(window->buffer_bytes, window->file_bytes - offset);
    const recovery_source_t *const source = window->source;
    const int64_t got = source->read_at(source->context, offset, window->buffer, want);
    window->has_failed = window->has_failed || got < 0;
    window->begin = offset;
    window->valid = std::clamp<int64_t>(got, 0, want);
}

const uint8_t *media_window_show(media_window *window, int64_t offset, int64_t count,
                                 int64_t *available)
{
    *available = 0;
    if (offset < 0 || count <= 0 || offset >= window->file_bytes) {
        return nullptr;
    }
    const int64_t shown_bytes = std::min({count, window->file_bytes - offset, kLongestFrameBytes});
    if (offset < window->begin || offset + shown_bytes > window->begin + window->valid) {
        if (!reserve(window, shown_bytes)) {
            return nullptr;
        }
        fill(window, offset);
    }
    *available = std::min(shown_bytes, window->begin + window->valid - offset);
    return *available > 0 ? window->buffer + (offset - window->begin) : nullptr;
}

void media_window_close(media_window *window)
{
    free(window->buffer);
    window->buffer = nullptr;
    window->buffer_bytes = 0;
    window->valid = 0;
}

#include "recovery/media_bounds.h"

#include "recovery/movie_check.h"

#include <algorithm>
#include <cstring>

static constexpr int kMostHeadBoxes = 64;
static constexpr int64_t kBoxHeaderBytes = 8;
static constexpr int64_t kLargeHeaderBytes = 16; // with a size of 64 bits

namespace {

struct box_header {
    char type[4];
    int64_t header_bytes;
    int64_t box_bytes; // 0: up to the end of the file
};

} // namespace

const uint8_t *show_part(media_window *window, int64_t offset, int64_t count)
{
    int64_t available = 0;
    const uint8_t *const bytes = media_window_show(window, offset, count, &available);
    return available == count ? bytes : nullptr;
}

static int64_t load_number(const uint8_t *bytes, int count)
{
    uint64_t value = 0;
    for (int i = 0; i < count; i++) {
        value = value << 8 | bytes[i];
    }
    return static_cast<int64_t>(std::min<uint64_t>(value, INT64_MAX));
}

static bool read_box_header(media_window *window, int64_t position, box_header *box)
{
    const uint8_t *bytes = show_part(window, position, kBoxHeaderBytes);
    if (bytes == nullptr) {
        return false;
    }
    memcpy(box->type, bytes + 4, 4);
    box->header_bytes = kBoxHeaderBytes;
    box->box_bytes = load_number(bytes, 4);
    if (box->box_bytes == 1) {
        bytes = show_part(window, position, kLargeHeaderBytes);
        if (bytes == nullptr) {
            return false;
        }
        box->header_bytes = kLargeHeaderBytes;
        box->box_bytes = load_number(bytes + kBoxHeaderBytes, 8);
    }
    return box->box_bytes == 0 || box->box_bytes >= box->header_bytes;
}

static bool is_type(const box_header *box, const char *type)
{
    return memcmp(box->type, type, 4) == 0;
}

// Finds the header of the media data.
static bool find_media_box(media_window *window, int64_t *position, box_header *box)
{
    *position = 0;
    for (int i = 0; i < kMostHeadBoxes; i++) {
        if (!read_box_header(window, *position, box) || (i == 0 && !is_type(box, "ftyp"))) {
            return false;
        }
        if (is_type(box, "mdat")) {
            return true;
        }
        if (box->box_bytes == 0 || box->box_bytes > window->file_bytes - *position) {
            return false;
        }
        *position += box->box_bytes;
    }
    return false;
}

// A head of which nothing, or only its begin, reached the storage.
static bool is_lost(media_window *window)
{
    static constexpr uint8_t kZeros[kRecorderHeadBytes] = {};
    const int64_t count = std::min(window->file_bytes, kRecorderHeadBytes);
    const uint8_t *const bytes = show_part(window, 0, count);
    if (bytes == nullptr) {
        return count == 0;
    }
    const bool is_begin = count < kRecorderHeadBytes &&
                          (count < kBoxHeaderBytes || memcmp(bytes + 4, "ftyp", 4) == 0);
    return is_begin || memcmp(bytes, kZeros, static_cast<size_t>(count)) == 0;
}

// A size may itself be cut: it counts when the file ends there, or when the movie box begins there
// or has lost its begin.
static bool is_end_plausible(media_window *window, int64_t end)
{
    static constexpr uint8_t kZeros[kBoxHeaderBytes] = {};
    if (end >= window->file_bytes) {
        return true;
    }
    const uint8_t *const bytes = show_part(window, end, kBoxHeaderBytes);
    return bytes == nullptr || memcmp(bytes + 4, "moov", 4) == 0 ||
           memcmp(bytes, kZeros, kBoxHeaderBytes) == 0;
}

static void set_end(media_window *window, int64_t position, const box_header *box,
                    media_bounds *bounds)
{
    const int64_t file_bytes = window->file_bytes;
    if (box->box_bytes == 0 || box->box_bytes > file_bytes - position ||
        !is_end_plausible(window, position + box->box_bytes)) {
        return;
    }
    bounds->end = position + box->box_bytes;
    box_header after;
    if (read_box_header(window, bounds->end, &after) && is_type(&after, "moov")) {
        bounds->has_movie = true;
        bounds->is_movie_cut = !is_movie_complete(window, bounds->end);
    }
}

bool find_media_bounds(media_window *window, media_bounds *bounds)
{
    int64_t position = 0;
    box_header box;
    *bounds = {.head = kHeadForeign, .begin = kRecorderHeadBytes, .end = window->file_bytes};
    if (find_media_box(window, &position, &box)) {
        bounds->head = kHeadIntact;
        bounds->begin = position + box.header_bytes;
        set_end(window, position, &box, bounds);
    } else if (is_lost(window)) {
        bounds->head = kHeadLost;
    }
    bounds->begin = std::min(bounds->begin, bounds->end);
    return !window->has_failed;
}

#include "recovery/movie_check.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

static constexpr int64_t kBoxHeaderBytes = 8;
static constexpr int64_t kTableHeaderBytes = 16;     // with version, flags and count
static constexpr int64_t kSizeTableHeaderBytes = 20; // stsz has one field more
static constexpr int kMostDepth = 8;
static constexpr int64_t kChunkBytes = 1 << 16;
static constexpr int64_t kLostZeros = 128; // what is lost is at least a block of the storage

namespace {

struct box_place {
    int64_t begin;
    int64_t end;
    char type[4];
};

// What the track that is being read has.
struct track_tables {
    int64_t offsets;
    int64_t sizes;
};

struct movie_check {
    media_window *window;
    int64_t ends[kMostDepth]; // of the boxes that are open
    int depth;
    int tracks;
    bool has_header;
    track_tables track;
};

} // namespace

static bool load_u32(media_window *window, int64_t offset, uint32_t *value)
{
    int64_t available = 0;
    const uint8_t *const bytes = media_window_show(window, offset, 4, &available);
    if (available != 4) {
        return false;
    }
    *value =
        uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
    return true;
}

static bool open_box(media_window *window, int64_t position, int64_t limit, box_place *box)
{
    int64_t available = 0;
    const uint8_t *const bytes = media_window_show(window, position, kBoxHeaderBytes, &available);
    if (available != kBoxHeaderBytes) {
        return false;
    }
    memcpy(box->type, bytes + 4, 4);
    uint32_t box_bytes = 0;
    box->begin = position;
    if (!load_u32(window, position, &box_bytes)) {
        return false;
    }
    box->end = position + box_bytes;
    return box_bytes >= kBoxHeaderBytes && box->end <= limit;
}

static bool is_type(const box_place *box, const char *type)
{
    return memcmp(box->type, type, 4) == 0;
}

// returns: whether the records fill the box and, word by word at their begins, are not zero
static bool has_records(media_window *window, const box_place *box, int64_t header_bytes,
                        int64_t record_bytes, int64_t *records)
{
    uint32_t count = 0;
    if (!load_u32(window, box->begin + header_bytes - 4, &count) ||
        box->begin + header_bytes + count * record_bytes != box->end) {
        return false;
    }
    for (int64_t at = box->begin + header_bytes; at < box->end; at += record_bytes) {
        uint32_t first = 0;
        uint32_t last = 0;
        if (!load_u32(window, at, &first) || !load_u32(window, at + record_bytes - 4, &last) ||
            (first | last) == 0) {
            return false;
        }
    }
    *records = count;
    return true;
}

// The texts of a recording end with the only zero byte in them.
static bool has_text(media_window *window, const box_place *box)
{
    static constexpr int64_t kLastBytes = 24; // of a text that the recorder writes
    int64_t available = 0;
    const uint8_t *const bytes =
        media_window_show(window, box->end - kLastBytes, kLastBytes, &available);
    return available == kLastBytes && memchr(bytes, 0, kLastBytes) == bytes + kLastBytes - 1;
}

static bool is_container(const box_place *box)
{
    for (const char *type : {"trak", "mdia", "minf", "stbl", "udta"}) {
        if (is_type(box, type)) {
            return true;
        }
    }
    return false;
}

static bool is_leaf_complete(movie_check *check, const box_place *box)
{
    int64_t ignored = 0;
    if (is_type(box, "stco")) {
        return has_records(check->window, box, kTableHeaderBytes, 4, &check->track.offsets);
    }
    if (is_type(box, "co64")) {
        return has_records(check->window, box, kTableHeaderBytes, 8, &check->track.offsets);
    }
    if (is_type(box, "stsz")) {
        return has_records(check->window, box, kSizeTableHeaderBytes, 4, &check->track.sizes);
    }
    if (is_type(box, "stss")) {
        return has_records(check->window, box, kTableHeaderBytes, 4, &ignored);
    }
    if (is_type(box, "stts")) {
        return has_records(check->window, box, kTableHeaderBytes, 8, &ignored);
    }
    if (is_type(box, "name")) {
        return has_text(check->window, box);
    }
    check->has_header = check->has_header || is_type(box, "mvhd");
    return box->type[0] != 0;
}

// Closes the boxes that end here.
static bool close_boxes(movie_check *check, int64_t position)
{
    while (check->depth > 0 && check->ends[check->depth - 1] == position) {
        check->depth--;
        if (check->depth == 1) { // a track, or the user data
            if (check->track.offsets != check->track.sizes) {
                return false;
            }
            check->track = {};
        }
    }
    return true;
}

bool is_movie_complete(media_window *window, int64_t position)
{
    movie_check check = {.window = window};
    box_place box;
    if (!open_box(window, position, window->file_bytes, &box) || !is_type(&box, "moov")) {
        return false;
    }
    check.ends[check.depth++] = box.end;
    for (int64_t at = position + kBoxHeaderBytes; check.depth > 0;) {
        if (!open_box(window, at, check.ends[check.depth - 1], &box)) {
            return false;
        }
        check.tracks += is_type(&box, "trak") ? 1 : 0;
        const bool is_open = is_container(&box) && box.end > at + kBoxHeaderBytes;
        if (is_open && check.depth == kMostDepth) {
            return false;
        }
        if (is_open) {
            check.ends[check.depth++] = box.end;
            at += kBoxHeaderBytes;
            continue;
        }
        if (!is_leaf_complete(&check, &box)) {
            return false;
        }
        at = box.end;
        if (!close_boxes(&check, at)) {
            return false;
        }
    }
    return check.has_header && check.tracks > 0;
}

bool has_lost_media(media_window *window, int64_t begin, int64_t end)
{
    int64_t zeros = 0;
    int64_t available = 0;
    for (int64_t at = begin; at < end; at += available) {
        const uint8_t *const bytes =
            media_window_show(window, at, std::min(kChunkBytes, end - at), &available);
        if (bytes == nullptr) {
            return false;
        }
        for (int64_t i = 0; i < available && zeros < kLostZeros; i++) {
            zeros = bytes[i] == 0 ? zeros + 1 : 0;
        }
        if (zeros >= kLostZeros) {
            return true;
        }
    }
    return false;
}

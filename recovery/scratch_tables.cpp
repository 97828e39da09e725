#include "recovery/scratch_tables.h"

#include "recovery/media_bounds.h"

static constexpr int64_t kRecordBytes = 4;    // of a size and of an offset
static constexpr int64_t kRunRecordBytes = 8; // number of pictures, duration of each
static constexpr int32_t kTicksPerMs = 90;

bool scratch_tables_open(scratch_tables *tables, const recovery_source_t *const *sources)
{
    for (int i = 0; i < RECOVERY_TABLE_COUNT; i++) {
        if (sources[i] != nullptr && !media_window_open(&tables->window[i], sources[i])) {
            return false;
        }
    }
    return true;
}

void scratch_tables_rewind(scratch_tables *tables)
{
    tables->index = 0;
    tables->ticks = 0;
    tables->run = -1;
    tables->run_left = 0;
    tables->matches = 0;
}

static bool read_record(scratch_tables *tables, int table, int64_t offset, uint32_t *value)
{
    media_window *const window = &tables->window[table];
    const uint8_t *const bytes =
        window->source != nullptr ? show_part(window, offset, kRecordBytes) : nullptr;
    if (bytes == nullptr) {
        return false;
    }
    *value =
        uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
    return true;
}

// Moves to the next picture.
static bool pass_picture(scratch_tables *tables)
{
    while (tables->run_left == 0) {
        uint32_t pictures = 0;
        uint32_t ticks = 0;
        const int64_t at = (tables->run + 1) * kRunRecordBytes;
        if (!read_record(tables, RECOVERY_TABLE_VIDEO_DURATIONS, at, &pictures) ||
            !read_record(tables, RECOVERY_TABLE_VIDEO_DURATIONS, at + kRecordBytes, &ticks)) {
            return false;
        }
        tables->run++;
        tables->run_left = pictures;
        tables->run_ticks = static_cast<int32_t>(ticks); // negative for a step back in time
    }
    tables->run_left--;
    tables->ticks += tables->run_ticks;
    tables->index++;
    return true;
}

bool scratch_tables_find(scratch_tables *tables, int64_t offset, int32_t size, uint32_t *time_ms)
{
    uint32_t place = 0;
    uint32_t bytes = 0;
    if (tables->is_mismatched) {
        return false;
    }
    for (;;) {
        const int64_t at = tables->index * kRecordBytes;
        if (!read_record(tables, RECOVERY_TABLE_VIDEO_OFFSETS, at, &place) ||
            !read_record(tables, RECOVERY_TABLE_VIDEO_SIZES, at, &bytes)) {
            return false;
        }
        if (place >= offset) {
            break;
        }
        if (!pass_picture(tables)) { // this one is lost, or was found last
            return false;
        }
    }
    tables->is_mismatched = place != offset || bytes != static_cast<uint32_t>(size);
    const int64_t found_ms = tables->ticks / kTicksPerMs;
    if (tables->is_mismatched || found_ms < 0 || found_ms > UINT32_MAX) {
        return false;
    }
    tables->matches++;
    *time_ms = static_cast<uint32_t>(found_ms);
    return true;
}

void scratch_tables_close(scratch_tables *tables)
{
    for (media_window &window : tables->window) {
        media_window_close(&window);
    }
}

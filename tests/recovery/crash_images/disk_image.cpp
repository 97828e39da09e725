#include "tests/recovery/crash_images/disk_image.h"

#include <algorithm>

static constexpr size_t kPageSize = kPageBytes; // in memory

namespace {

// One file while its image is made: as the program sees it, and what is on the storage.
struct file_state {
    Bytes seen;
    bool exists = false;
    int64_t bytes = 0;               // the size on the storage
    Bytes pages = {};                // whole pages, zeros after the end that they had
    std::vector<bool> is_there = {}; // for each page
};

} // namespace

static size_t pages_of(int64_t bytes)
{
    return static_cast<size_t>((bytes + kPageBytes - 1) / kPageBytes);
}

static void store_page(file_state *file, size_t page)
{
    const size_t begin = page * kPageSize;
    const size_t end = std::min(begin + kPageSize, file->seen.size());
    if (file->is_there.size() <= page) {
        file->is_there.resize(page + 1);
        file->pages.resize((page + 1) * kPageSize);
    }
    file->is_there[page] = true;
    uint8_t *const to = file->pages.data() + begin;
    std::fill_n(to, kPageSize, uint8_t{0});
    if (begin < end) {
        std::copy(file->seen.data() + begin, file->seen.data() + end, to);
    }
}

template <typename IsThere>
static void apply_write(const disk_event &event, size_t bytes, bool has_all_sizes,
                        const IsThere &is_there, file_state *file)
{
    const int64_t end = event.offset + static_cast<int64_t>(bytes);
    if (static_cast<int64_t>(file->seen.size()) < end) {
        file->seen.resize(static_cast<size_t>(end));
    }
    std::copy_n(event.bytes.begin(), bytes, file->seen.data() + event.offset);
    for (size_t page = static_cast<size_t>(event.offset / kPageBytes); page < pages_of(end);
         page++) {
        if (is_there(static_cast<int64_t>(page))) {
            store_page(file, page);
            file->exists = true;
            file->bytes =
                std::max(file->bytes, std::min(end, static_cast<int64_t>(page + 1) * kPageBytes));
        }
    }
    if (has_all_sizes) {
        file->bytes = std::max(file->bytes, end);
    }
}

static Bytes contents_of(const file_state &file, const Bytes *stale)
{
    Bytes bytes(pages_of(file.bytes) * kPageBytes);
    for (size_t page = 0; page < pages_of(file.bytes); page++) {
        const ptrdiff_t begin = static_cast<ptrdiff_t>(page * kPageBytes);
        if (page < file.is_there.size() && file.is_there[page]) {
            std::copy_n(file.pages.begin() + begin, kPageBytes, bytes.begin() + begin);
        } else if (stale != nullptr) {
            for (size_t i = page * kPageBytes; i < (page + 1) * kPageBytes; i++) {
                bytes[i] = (*stale)[i % stale->size()];
            }
        }
    }
    bytes.resize(static_cast<size_t>(file.bytes));
    return bytes;
}

static std::vector<size_t> synced_ends(const disk_trace &trace, size_t events)
{
    std::vector<size_t> ends(trace.names.size());
    for (size_t i = 0; i < events; i++) {
        const disk_event &event = trace.events[i];
        if (event.call == disk_call::sync) {
            ends[event.file] = std::max(ends[event.file], event.begun_at);
        }
    }
    return ends;
}

std::vector<size_t> unsynced_events(const disk_trace &trace, size_t events)
{
    const std::vector<size_t> ends = synced_ends(trace, events);
    std::vector<size_t> unsynced;
    for (size_t i = 0; i < events; i++) {
        const disk_event &event = trace.events[i];
        if (event.call != disk_call::sync && i >= ends[event.file]) {
            unsynced.push_back(i);
        }
    }
    return unsynced;
}

disk_image make_disk_image(const disk_trace &trace, const crash &crash)
{
    std::vector<file_state> files(trace.names.size());
    const std::vector<size_t> synced = synced_ends(trace, crash.events);
    const size_t events = crash.events + (crash.torn_bytes > 0 ? 1 : 0);
    for (size_t i = 0; i < events; i++) {
        const disk_event &event = trace.events[i];
        file_state *const file = &files[event.file];
        const auto is_there = [&](int64_t page) {
            return i < synced[event.file] || !crash.is_there || crash.is_there(i, page);
        };
        switch (event.call) {
        case disk_call::create:
            *file = is_there(0) ? file_state{.seen = {}, .exists = true} : *file;
            file->seen.clear();
            break;
        case disk_call::write:
            apply_write(event,
                        i < crash.events ? event.bytes.size()
                                         : static_cast<size_t>(crash.torn_bytes),
                        crash.has_all_sizes, is_there, file);
            break;
        case disk_call::remove:
            file->exists = file->exists && !is_there(0);
            break;
        case disk_call::sync:
            break;
        }
    }
    disk_image image(files.size());
    for (size_t i = 0; i < files.size(); i++) {
        if (files[i].exists) {
            image[i] = contents_of(files[i], crash.stale);
        }
    }
    return image;
}

// The samples of a track, read from its tables one after the other: they are never in memory all
// at once.
#ifndef MP4READ_SAMPLE_LIST_H
#define MP4READ_SAMPLE_LIST_H

#include "mp4read/cursor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>

namespace mp4_reader {

struct sample {
    uint64_t offset = 0; // from the begin of the file
    uint32_t size = 0;
    uint64_t time = 0; // in ticks of the track
    uint32_t duration = 0;
    bool sync = false;

    bool operator==(const sample &) const = default;
};

// The records of a table box: each has the same number of fields, each field the same width.
struct table {
    bytes records;
    size_t fields = 1, width = 4;

    size_t size() const
    {
        return records.size() / (fields * width);
    }
    uint64_t at(size_t record, size_t field = 0) const
    {
        const uint8_t *const from = records.data() + (record * fields + field) * width;
        uint64_t value = 0;
        for (size_t i = 0; i < width; i++) {
            value = value << 8 | from[i];
        }
        return value;
    }
};

struct sample_tables {
    uint64_t count = 0;
    uint32_t common_size = 0; // 0: each sample has its own in `sizes`
    table sizes;
    table chunks, chunk_runs;
    uint64_t held = 0; // samples that the chunks have room for
    table time_runs;
    table sync_numbers;
    bool all_sync = true;
};

// A walk through the tables from sample to sample, which ends with the last one in a chunk.
struct sample_walk {
    const sample_tables *tables = nullptr;
    size_t sample = 0, chunk = 0; // the next ones
    size_t chunk_run = 0, time_run = 0, sync = 0;
    uint64_t left_in_chunk = 0, left_in_time_run = 0;
    uint64_t offset = 0, time = 0;
    uint32_t duration = 0;
};

// The walk's tables have a sample more.
sample next_sample(sample_walk &walk);

struct sample_list;

// The position of a sample, which only moves forward.
struct sample_iterator {
    using value_type = sample;
    using difference_type = std::ptrdiff_t;

    const sample_list *list = nullptr;
    size_t index = 0; // of `current`
    sample_walk walk;
    sample current;

    const sample &operator*() const
    {
        return current;
    }
    const sample *operator->() const
    {
        return &current;
    }
    sample_iterator &operator++();
    bool operator==(std::default_sentinel_t) const;
};

struct sample_list {
    sample_tables tables;
    size_t count = 0;
    sample first, last;
    std::function<void()> pause; // see read_movie

    size_t size() const
    {
        return count;
    }
    bool empty() const
    {
        return count == 0;
    }
    sample_iterator begin() const;
    std::default_sentinel_t end() const
    {
        return {};
    }
};

} // namespace mp4_reader

#endif // MP4READ_SAMPLE_LIST_H

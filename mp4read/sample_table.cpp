#include "mp4read/sample_table.h"

#include <algorithm>

namespace mp4_reader {

static constexpr size_t kMaxSamples = 1 << 22; // of all tracks together
static constexpr size_t kRecordsToPause = 1 << 12;

static void pause_at(const std::function<void()> &pause, size_t record)
{
    if (record % kRecordsToPause == 0 && pause) {
        pause();
    }
}

static void enter_chunk(sample_walk &walk)
{
    const table &runs = walk.tables->chunk_runs;
    if (walk.chunk_run + 1 < runs.size() && runs.at(walk.chunk_run + 1) == walk.chunk + 1) {
        walk.chunk_run++;
    }
    walk.offset = walk.tables->chunks.at(walk.chunk++);
    walk.left_in_chunk = runs.at(walk.chunk_run, 1);
}

// Samples after the last run have no duration.
static void enter_time_run(sample_walk &walk)
{
    const table &runs = walk.tables->time_runs;
    walk.duration = 0;
    for (; walk.left_in_time_run == 0 && walk.time_run < runs.size(); walk.time_run++) {
        walk.left_in_time_run = runs.at(walk.time_run, 0);
        walk.duration = static_cast<uint32_t>(runs.at(walk.time_run, 1));
    }
}

static bool is_sync(sample_walk &walk)
{
    const table &numbers = walk.tables->sync_numbers;
    while (walk.sync < numbers.size() && numbers.at(walk.sync) <= walk.sample) {
        walk.sync++;
    }
    return walk.tables->all_sync ||
           (walk.sync < numbers.size() && numbers.at(walk.sync) == walk.sample + 1);
}

sample next_sample(sample_walk &walk)
{
    if (walk.left_in_chunk == 0) {
        enter_chunk(walk);
    }
    if (walk.left_in_time_run == 0) {
        enter_time_run(walk);
    }
    const sample next = {.offset = walk.offset,
                         .size = walk.tables->common_size != 0
                                     ? walk.tables->common_size
                                     : static_cast<uint32_t>(walk.tables->sizes.at(walk.sample)),
                         .time = walk.time,
                         .duration = walk.duration,
                         .sync = is_sync(walk)};
    walk.offset += next.size;
    walk.time += next.duration;
    walk.left_in_chunk--;
    walk.left_in_time_run -= walk.left_in_time_run > 0 ? 1 : 0;
    walk.sample++;
    return next;
}

sample_iterator sample_list::begin() const
{
    sample_iterator at = {.list = this, .walk = {.tables = &tables}};
    if (count > 0) {
        at.current = next_sample(at.walk);
    }
    return at;
}

sample_iterator &sample_iterator::operator++()
{
    index++;
    if (index < list->count) {
        current = next_sample(walk);
    }
    pause_at(list->pause, index);
    return *this;
}

bool sample_iterator::operator==(std::default_sentinel_t) const
{
    return index >= list->count;
}

// Reads a table of records after their count. The box may be longer than they are.
static table read_table(reading &state, const box &stbl, const std::string &type, size_t fields,
                        size_t width = 4)
{
    const box *const found = find(stbl.children, type);
    if (!check(state, found != nullptr, "table " + type + " is missing")) {
        return {{}, fields, width};
    }
    cursor in = {found->payload};
    in.u32(); // version, flags
    const uint64_t record_bytes = in.u32() * uint64_t{fields * width};
    const bytes records = in.take(record_bytes);
    check(state, !in.overrun, "table " + type + " is longer than its box");
    return {records, fields, width};
}

static void read_sizes(reading &state, const box &stbl, sample_tables &result)
{
    const box *const stsz = find(stbl.children, "stsz");
    if (!check(state, stsz != nullptr, "table stsz is missing")) {
        return;
    }
    cursor in = {stsz->payload};
    in.u32(); // version, flags
    result.common_size = in.u32();
    result.count = in.u32();
    if (result.common_size == 0) {
        result.sizes.records = in.data;
        check(state, !in.overrun && result.count <= result.sizes.size(),
              "table stsz is longer than its box");
        result.count = std::min<uint64_t>(result.count, result.sizes.size());
    }
}

static void read_chunks(reading &state, const box &stbl, sample_tables &result)
{
    const bool is_long = find(stbl.children, "co64") != nullptr;
    const table chunks = read_table(state, stbl, is_long ? "co64" : "stco", 1, is_long ? 8 : 4);
    const table runs = read_table(state, stbl, "stsc", 3);
    bool valid = runs.size() == 0 || runs.at(0) == 1;
    for (size_t run = 0; run < runs.size() && valid; run++) {
        const uint64_t begin = runs.at(run, 0);
        const uint64_t end = run + 1 < runs.size() ? runs.at(run + 1, 0) : chunks.size() + 1;
        const bool is_empty = chunks.size() == 0 && begin == end; // a track without samples
        valid = (begin < end || is_empty) && end <= chunks.size() + 1 && runs.at(run, 1) > 0;
        result.held += valid ? (end - begin) * runs.at(run, 1) : 0;
    }
    check(state, valid && result.held >= result.count, "the chunks do not hold all samples");
    result.chunks = chunks;
    result.chunk_runs = runs;
}

static void read_times(reading &state, const box &stbl, sample_tables &result)
{
    result.time_runs = read_table(state, stbl, "stts", 2);
    uint64_t timed = 0;
    for (size_t run = 0; run < result.time_runs.size(); run++) {
        timed += result.time_runs.at(run);
        pause_at(state.pause, run);
    }
    check(state, timed <= result.count || result.count == 0,
          "stts has times for more samples than there are");
    check(state, timed >= result.count, "stts does not cover all samples");
}

static void read_sync_numbers(reading &state, const box &stbl, sample_tables &result)
{
    result.all_sync = find(stbl.children, "stss") == nullptr;
    if (result.all_sync) {
        return;
    }
    result.sync_numbers = read_table(state, stbl, "stss", 1);
    uint64_t last = 0;
    for (size_t i = 0; i < result.sync_numbers.size(); i++) {
        const uint64_t number = result.sync_numbers.at(i);
        check(state, number > 0 && number <= result.count,
              "stss names samples that the track does not have");
        check(state, i == 0 || number > last, "stss is not in order");
        last = number;
        pause_at(state.pause, i);
    }
}

void read_samples(reading &state, const box &stbl, const sample_sink &sink, track &result)
{
    sample_tables tables;
    read_sizes(state, stbl, tables);
    read_chunks(state, stbl, tables);
    read_times(state, stbl, tables);
    read_sync_numbers(state, stbl, tables);
    uint64_t count = tables.count;
    const size_t room = kMaxSamples - state.samples;
    if (!limit(state, count <= room, "too many samples to read them all")) {
        result.samples_left_out = count - room;
        count = room;
    }
    state.samples += static_cast<size_t>(count);
    result.list = {.tables = tables,
                   .count = static_cast<size_t>(std::min(count, tables.held)),
                   .pause = state.pause};
    if (result.list.count > 0) {
        result.list.first = *result.list.begin();
    }
    for (const sample &next : result.list) {
        result.list.last = next;
        sink(&result, next);
    }
}

} // namespace mp4_reader

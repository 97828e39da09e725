#include "mp4read/mp4_reader.h"

#include <algorithm>
#include <set>

namespace mp4_reader {
namespace {

using bytes = std::span<const uint8_t>;

// Beyond any file that makes sense; a hostile one shall not take more memory or stack than these.
constexpr size_t kMaxFaults = 100;
constexpr size_t kMaxBoxes = 1 << 16;
constexpr size_t kMaxTracks = 64;
constexpr size_t kMaxSamples = 1 << 22; // of all tracks together
constexpr unsigned kMaxDepth = 8;

// Reads big-endian numbers; reading past the end gives zeros and is remembered.
struct cursor {
    bytes data;
    bool overrun = false;

    bytes take(uint64_t count)
    {
        overrun = overrun || count > data.size();
        const bytes taken = data.first(std::min<size_t>(static_cast<size_t>(count), data.size()));
        data = data.subspan(taken.size());
        return taken;
    }
    uint64_t number(size_t width)
    {
        uint64_t value = 0;
        for (const uint8_t byte : take(width)) {
            value = value << 8 | byte;
        }
        return value;
    }
    uint32_t u32(size_t width = 4)
    {
        return static_cast<uint32_t>(number(width));
    }
    std::string text()
    {
        const bytes characters = take(4);
        return {characters.begin(), characters.end()};
    }
    bool is_used_up() const
    {
        return !overrun && data.empty();
    }
};

std::vector<uint8_t> copy(bytes from)
{
    return {from.begin(), from.end()};
}

// The records of a table box: numbers of one width, some of them to a record.
struct table {
    bytes records;
    size_t fields = 1, width = 4;

    size_t size() const
    {
        return records.size() / (fields * width);
    }
    uint64_t at(size_t record, size_t field = 0) const
    {
        return cursor{records.subspan((record * fields + field) * width)}.number(width);
    }
};

// What says where a track's samples lie and when they are shown.
struct sample_tables {
    uint64_t count = 0;
    uint32_t common_size = 0; // or 0: they are in the table
    table sizes;
    table chunks, chunk_runs;
    table time_runs;
    table sync_numbers;
    bool all_sync = true;
};

// The way through the tables, from sample to sample, within what the chunks hold.
struct sample_walk {
    const sample_tables &tables;
    size_t sample = 0, chunk = 0; // the next ones
    size_t chunk_run = 0, time_run = 0, sync = 0;
    uint64_t left_in_chunk = 0, left_in_time_run = 0;
    uint64_t offset = 0, time = 0;
    uint32_t duration = 0;
};

void enter_chunk(sample_walk *walk)
{
    const table &runs = walk->tables.chunk_runs;
    if (walk->chunk_run + 1 < runs.size() && runs.at(walk->chunk_run + 1) == walk->chunk + 1) {
        walk->chunk_run++;
    }
    walk->offset = walk->tables.chunks.at(walk->chunk++);
    walk->left_in_chunk = runs.at(walk->chunk_run, 1);
}

// Behind the last run, samples have no duration.
void enter_time_run(sample_walk *walk)
{
    const table &runs = walk->tables.time_runs;
    walk->duration = 0;
    for (; walk->left_in_time_run == 0 && walk->time_run < runs.size(); walk->time_run++) {
        walk->left_in_time_run = runs.at(walk->time_run, 0);
        walk->duration = static_cast<uint32_t>(runs.at(walk->time_run, 1));
    }
}

bool is_sync(sample_walk *walk)
{
    const table &numbers = walk->tables.sync_numbers;
    while (walk->sync < numbers.size() && numbers.at(walk->sync) <= walk->sample) {
        walk->sync++;
    }
    return walk->tables.all_sync ||
           (walk->sync < numbers.size() && numbers.at(walk->sync) == walk->sample + 1);
}

sample next_sample(sample_walk *walk)
{
    if (walk->left_in_chunk == 0) {
        enter_chunk(walk);
    }
    if (walk->left_in_time_run == 0) {
        enter_time_run(walk);
    }
    const sample next = {.offset = walk->offset,
                         .size = walk->tables.common_size != 0
                                     ? walk->tables.common_size
                                     : static_cast<uint32_t>(walk->tables.sizes.at(walk->sample)),
                         .time = walk->time,
                         .duration = walk->duration,
                         .sync = is_sync(walk)};
    walk->offset += next.size;
    walk->time += next.duration;
    walk->left_in_chunk--;
    walk->left_in_time_run -= walk->left_in_time_run > 0 ? 1 : 0;
    walk->sample++;
    return next;
}

uint32_t record_profile(const avc_configuration &avc)
{
    return avc.record.size() > 1 ? avc.record[1] : 0;
}

struct reader {
    std::vector<std::string> faults, notes;
    std::string where; // in front of a fault or a note
    size_t boxes = 0, samples = 0;

    bool check(bool sound, const std::string &what);
    bool limit(bool within, const std::string &what);
    std::vector<box> read_boxes(bytes image, unsigned depth = 0);
    cursor descriptor(cursor *in, uint32_t tag);
    void read_avcc(const box &avcc, avc_configuration *result);
    void read_esds(const box &esds, stream_descriptors *result);
    void read_sample_entry(const box &stsd, track *result);
    table read_table(const std::vector<box> &boxes, const std::string &type, size_t fields,
                     size_t width = 4);
    void read_sizes(const std::vector<box> &stbl, sample_tables *result);
    uint64_t read_chunks(const std::vector<box> &stbl, sample_tables *result);
    void read_times(const std::vector<box> &stbl, sample_tables *result);
    void read_sync_numbers(const std::vector<box> &stbl, sample_tables *result);
    void read_samples(const std::vector<box> &stbl, const sample_sink &sink, track *result);
    void read_track(const box &trak, const sample_sink &sink, track *result);
    void read_tracks(const box &moov, const sample_sink &sink, movie *result);
};

bool reader::check(bool sound, const std::string &what)
{
    if (!sound && faults.size() < kMaxFaults &&
        std::find(faults.begin(), faults.end(), where + what) == faults.end()) {
        faults.push_back(where + what);
    }
    return sound;
}

// Notes what is beyond the reader, not wrong with the file.
bool reader::limit(bool within, const std::string &what)
{
    if (!within && notes.size() < kMaxFaults) {
        notes.push_back(where + what);
    }
    return within;
}

std::vector<box> reader::read_boxes(bytes image, unsigned depth)
{
    static const std::set<std::string> containers = {"moov", "trak", "mdia", "minf",
                                                     "dinf", "stbl", "udta"};
    std::vector<box> found;
    while (!image.empty() && check(boxes < kMaxBoxes, "too many boxes to read them all")) {
        cursor in = {image};
        box next;
        next.size = in.u32();
        next.type = in.text();
        if (next.size == 1) {
            next.size = in.number(8);
        } else if (next.size == 0 && depth == 0) {
            next.size = image.size();
        }
        const size_t header_bytes = image.size() - in.data.size();
        if (!check(
                !in.overrun && next.size >= header_bytes && next.size <= image.size(),
                "box " + printable(next.type) +
                    (depth == 0 ? " goes beyond the end of the file" : " leaves its container"))) {
            break;
        }
        next.payload = in.take(next.size - header_bytes);
        if (containers.count(next.type) != 0 && check(depth < kMaxDepth, "boxes nest too deep")) {
            next.children = read_boxes(next.payload, depth + 1);
        }
        image = in.data;
        found.push_back(std::move(next));
        boxes++;
    }
    return found;
}

void reader::read_avcc(const box &avcc, avc_configuration *result)
{
    cursor in = {avcc.payload};
    result->record = copy(in.data);
    if (in.data.empty()) {
        return;
    }
    check(in.u32(1) == 1, "configurationVersion is not 1");
    in.take(3);
    check((in.u32(1) & 3) == 3, "NAL units' lengths are not of 4 bytes");
    for (uint32_t count = in.u32(1) & 0x1F; count > 0; count--) {
        result->sps.push_back(copy(in.take(in.number(2))));
    }
    for (uint32_t count = in.u32(1); count > 0; count--) {
        result->pps.push_back(copy(in.take(in.number(2))));
    }
    const uint32_t profile = record_profile(*result);
    const bool is_extended = profile != 66 && profile != 77 && profile != 88;
    if (is_extended && !in.data.empty()) { // formats and depths, then extensions of sequence sets
        in.take(3);
        for (uint32_t count = in.u32(1); count > 0; count--) {
            in.take(in.number(2));
        }
    }
    check(in.is_used_up(), "avcC does not add up");
}

// Reads a descriptor's tag and size.
// returns  a cursor on its payload; the outer cursor moves behind it
cursor reader::descriptor(cursor *in, uint32_t tag)
{
    check(in->u32(1) == tag, "descriptor tag is not " + std::to_string(tag));
    uint64_t size = 0;
    uint32_t group = 0x80;
    while ((group & 0x80) != 0 && !in->overrun) {
        group = in->u32(1);
        size = size << 7 | (group & 0x7F);
    }
    const bytes payload = in->take(size);
    check(!in->overrun, "descriptor leaves its container");
    return {payload};
}

void reader::read_esds(const box &esds, stream_descriptors *result)
{
    cursor in = {esds.payload};
    in.u32();
    cursor es = descriptor(&in, 3);
    es.take(3);
    cursor config = descriptor(&es, 4);
    result->object_type = config.u32(1);
    result->stream_type = config.u32(1) >> 2;
    config.take(11);
    if (!config.data.empty()) {
        result->specific_info = copy(descriptor(&config, 5).data);
    }
    check(descriptor(&es, 6).u32(1) == 2 && in.is_used_up() && es.is_used_up() &&
              config.is_used_up(),
          "esds does not add up");
}

void reader::read_sample_entry(const box &stsd, track *result)
{
    cursor in = {stsd.payload};
    in.u32();
    check(in.u32() == 1 && in.u32() == in.data.size() + 4, "stsd is not filled by one entry");
    result->coding = in.text();
    in.take(8);
    if (result->handler == "vide") {
        in.take(16);
        result->width = in.u32(2);
        result->height = in.u32(2);
        in.take(50);
    } else if (result->handler == "soun") {
        in.take(8);
        result->channels = in.u32(2);
        in.take(6);
        result->sample_rate = in.u32() >> 16;
    } else {
        return;
    }
    check(!in.overrun, "sample entry is too short");
    for (const box &child : read_boxes(in.data, 1)) {
        if (child.type == "avcC") {
            read_avcc(child, &result->avc);
        } else if (child.type == "esds") {
            read_esds(child, &result->esds);
        }
    }
}

// A table's records follow their count. The box may be longer than they are.
table reader::read_table(const std::vector<box> &boxes_of_table, const std::string &type,
                         size_t fields, size_t width)
{
    const box *const found = find(boxes_of_table, type);
    if (!check(found != nullptr, "table " + type + " is missing")) {
        return {{}, fields, width};
    }
    cursor in = {found->payload};
    in.u32();
    const uint64_t record_bytes = in.u32() * uint64_t{fields * width};
    const bytes records = in.take(record_bytes);
    check(!in.overrun, "table " + type + " does not add up");
    return {records, fields, width};
}

void reader::read_sizes(const std::vector<box> &stbl, sample_tables *result)
{
    const box *const stsz = find(stbl, "stsz");
    if (!check(stsz != nullptr, "table stsz is missing")) {
        return;
    }
    cursor in = {stsz->payload};
    in.u32();
    result->common_size = in.u32();
    result->count = in.u32();
    if (result->common_size == 0) {
        result->sizes.records = in.data;
        check(!in.overrun && result->count <= result->sizes.size(), "table stsz does not add up");
        result->count = std::min<uint64_t>(result->count, result->sizes.size());
    }
}

// returns  how many samples the chunks hold
uint64_t reader::read_chunks(const std::vector<box> &stbl, sample_tables *result)
{
    const bool is_long = find(stbl, "co64") != nullptr;
    const table chunks = read_table(stbl, is_long ? "co64" : "stco", 1, is_long ? 8 : 4);
    const table runs = read_table(stbl, "stsc", 3);
    uint64_t held = 0;
    bool sound = runs.size() == 0 || runs.at(0) == 1;
    for (size_t run = 0; run < runs.size() && sound; run++) {
        const uint64_t begin = runs.at(run, 0);
        const uint64_t end = run + 1 < runs.size() ? runs.at(run + 1, 0) : chunks.size() + 1;
        const bool is_empty = chunks.size() == 0 && begin == end; // a track without samples
        sound = (begin < end || is_empty) && end <= chunks.size() + 1 && runs.at(run, 1) > 0;
        held += sound ? (end - begin) * runs.at(run, 1) : 0;
    }
    check(sound && held >= result->count, "the chunks do not hold all samples");
    result->chunks = chunks;
    result->chunk_runs = runs;
    return held;
}

void reader::read_times(const std::vector<box> &stbl, sample_tables *result)
{
    result->time_runs = read_table(stbl, "stts", 2);
    uint64_t timed = 0;
    for (size_t run = 0; run < result->time_runs.size(); run++) {
        timed += result->time_runs.at(run);
    }
    check(timed <= result->count || result->count == 0,
          "stts has times for more samples than there are");
    check(timed >= result->count, "stts does not cover all samples");
}

void reader::read_sync_numbers(const std::vector<box> &stbl, sample_tables *result)
{
    result->all_sync = find(stbl, "stss") == nullptr;
    if (result->all_sync) {
        return;
    }
    result->sync_numbers = read_table(stbl, "stss", 1);
    uint64_t last = 0;
    for (size_t i = 0; i < result->sync_numbers.size(); i++) {
        const uint64_t number = result->sync_numbers.at(i);
        check(number > 0 && number <= result->count, "stss leaves the track");
        check(i == 0 || number > last, "stss is not in order");
        last = number;
    }
}

void reader::read_samples(const std::vector<box> &stbl, const sample_sink &sink, track *result)
{
    sample_tables tables;
    read_sizes(stbl, &tables);
    const uint64_t held = read_chunks(stbl, &tables);
    read_times(stbl, &tables);
    read_sync_numbers(stbl, &tables);
    uint64_t count = tables.count;
    if (!limit(count <= kMaxSamples - samples, "too many samples to read them all")) {
        result->samples_left_out = count - (kMaxSamples - samples);
        count = kMaxSamples - samples;
    }
    samples += static_cast<size_t>(count);
    sample_walk walk = {tables};
    for (uint64_t i = 0; i < std::min(count, held); i++) {
        sink(result, next_sample(&walk));
    }
}

void reader::read_track(const box &trak, const sample_sink &sink, track *result)
{
    const box *tkhd = find(trak.children, "tkhd");
    const box *mdhd = find(trak.children, "mdia/mdhd");
    const box *hdlr = find(trak.children, "mdia/hdlr");
    const box *stbl = find(trak.children, "mdia/minf/stbl");
    const box *stsd = find(trak.children, "mdia/minf/stbl/stsd");
    if (!check(tkhd != nullptr && mdhd != nullptr && hdlr != nullptr && stsd != nullptr,
               "a box of a track is missing")) {
        return;
    }
    cursor header = {tkhd->payload};
    size_t width = header.u32() >> 24 == 1 ? 8 : 4;
    result->creation_time = header.number(width);
    header.take(width);
    result->id = header.u32();
    header.u32();
    result->movie_duration = header.number(width);
    cursor media = {mdhd->payload};
    width = media.u32() >> 24 == 1 ? 8 : 4;
    media.take(2 * width);
    result->timescale = media.u32();
    result->media_duration = media.number(width);
    cursor handler = {hdlr->payload};
    handler.take(8);
    result->handler = handler.text();
    check(!header.overrun && !media.overrun && !handler.overrun, "a header is too short");
    read_sample_entry(*stsd, result);
    read_samples(stbl->children, sink, result);
}

void reader::read_tracks(const box &moov, const sample_sink &sink, movie *result)
{
    check(find(moov.children, "mvex") == nullptr,
          "the movie goes on in fragments, which are not read");
    for (const box &each : moov.children) {
        if (each.type == "trak" &&
            limit(result->tracks.size() < kMaxTracks, "too many tracks to read them all")) {
            where = "track " + std::to_string(result->tracks.size() + 1) + ": ";
            read_track(each, sink, &result->tracks.emplace_back());
            where.clear();
        }
    }
}

} // namespace

const box *find(const std::vector<box> &boxes, const std::string &path)
{
    const size_t slash = path.find('/');
    const auto found = std::find_if(boxes.begin(), boxes.end(), [&](const box &each) {
        return each.type == path.substr(0, slash);
    });
    if (found == boxes.end() || slash == std::string::npos) {
        return found == boxes.end() ? nullptr : &*found;
    }
    return find(found->children, path.substr(slash + 1));
}

const track *find_track(const movie &file, const std::string &handler)
{
    const auto found = std::find_if(file.tracks.begin(), file.tracks.end(),
                                    [&](const track &each) { return each.handler == handler; });
    return found == file.tracks.end() ? nullptr : &*found;
}

std::string first_fault(const movie &file)
{
    return file.faults.empty() ? "" : file.faults.front();
}

std::string printable(const std::string &type)
{
    std::string text = type;
    std::replace_if(
        text.begin(), text.end(), [](char each) { return each < ' ' || each > '~'; }, '?');
    return text;
}

// Whether the image begins with a box that MP4 files begin with.
static bool looks_like_movie(bytes image)
{
    static const std::set<std::string> first_boxes = {"ftyp", "styp", "mdat", "moov", "free",
                                                      "skip", "wide", "uuid", "pnot"};
    cursor in = {image};
    in.take(4);
    return first_boxes.count(in.text()) != 0;
}

movie read_movie(std::span<const uint8_t> image)
{
    return read_movie(image, [](track *of, const sample &next) { of->samples.push_back(next); });
}

movie read_movie(std::span<const uint8_t> image, const sample_sink &sink)
{
    movie result;
    reader r;
    if (!r.check(looks_like_movie(image), "this is no MP4 file")) {
        result.faults = r.faults;
        return result;
    }
    result.boxes = r.read_boxes(image);
    const box *moov = find(result.boxes, "moov");
    const box *mvhd = find(result.boxes, "moov/mvhd");
    if (r.check(moov != nullptr, "no movie box: the recording was not finished") &&
        r.check(mvhd != nullptr, "no movie header")) {
        cursor in = {mvhd->payload};
        const size_t width = in.u32() >> 24 == 1 ? 8 : 4;
        result.creation_time = in.number(width);
        in.take(width);
        result.timescale = in.u32();
        result.duration = in.number(width);
        in.take(76);
        result.next_track_id = in.u32();
        r.check(!in.overrun, "the movie header is too short");
        r.read_tracks(*moov, sink, &result);
    }
    result.faults = r.faults;
    result.notes = r.notes;
    return result;
}

} // namespace mp4_reader

#include "client/mp4_reader.h"

#include <algorithm>
#include <set>

namespace mp4_reader {
namespace {

using bytes = std::span<const uint8_t>;

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

struct reader {
    std::string error;

    bool check(bool sound, const std::string &what)
    {
        error = error.empty() && !sound ? what : error;
        return sound;
    }

    std::vector<box> read_boxes(bytes image, bool top);
    cursor descriptor(cursor *in, uint32_t tag);
    void read_avcc(const box &avcc, avc_configuration *result);
    void read_esds(const box &esds, stream_descriptors *result);
    void read_sample_entry(const box &stsd, track *result);
    std::vector<std::vector<uint64_t>> table(const box *found, size_t skip, size_t fields,
                                             size_t width = 4);
    void read_samples(const box &stbl, track *result);
    void read_track(const box &trak, track *result);
};

std::vector<box> reader::read_boxes(bytes image, bool top)
{
    static const std::set<std::string> containers = {"moov", "trak", "mdia", "minf",
                                                     "dinf", "stbl", "udta"};
    std::vector<box> boxes;
    while (!image.empty()) {
        cursor in = {image};
        box found;
        found.size = in.u32();
        found.type = in.text();
        if (found.size == 1) {
            found.size = in.number(8);
        } else if (found.size == 0 && top) {
            found.size = image.size();
        }
        const size_t header_bytes = image.size() - in.data.size();
        if (!check(!in.overrun && found.size >= header_bytes && found.size <= image.size(),
                   "box " + found.type + " leaves its container")) {
            break;
        }
        found.payload = in.take(found.size - header_bytes);
        if (containers.count(found.type) != 0) {
            found.children = read_boxes(found.payload, false);
        }
        image = in.data;
        boxes.push_back(found);
    }
    return boxes;
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
    in.take(12);
    if (result->handler == "vide") {
        in.take(70);
    } else {
        in.take(16);
        result->sample_rate = in.u32() >> 16;
    }
    check(!in.overrun, "sample entry is too short");
    for (const box &child : read_boxes(in.data, false)) {
        if (child.type == "avcC") {
            read_avcc(child, &result->avc);
        } else if (child.type == "esds") {
            read_esds(child, &result->esds);
        }
    }
}

// The records of a table box: `fields` numbers of `width` bytes each, after a count. The box may
// be longer than its records.
std::vector<std::vector<uint64_t>> reader::table(const box *found, size_t skip, size_t fields,
                                                 size_t width)
{
    std::vector<std::vector<uint64_t>> records;
    if (!check(found != nullptr, "a sample table is missing")) {
        return records;
    }
    cursor in = {found->payload};
    in.take(4 + skip);
    for (uint32_t count = in.u32(); count > 0 && !in.overrun; count--) {
        records.emplace_back(fields);
        std::generate(records.back().begin(), records.back().end(),
                      [&] { return in.number(width); });
    }
    check(!in.overrun, "table " + found->type + " does not add up");
    return records;
}

void reader::read_samples(const box &stbl, track *result)
{
    const box *co64 = find(stbl.children, "co64");
    const box *stss = find(stbl.children, "stss");
    const auto offsets =
        co64 != nullptr ? table(co64, 0, 1, 8) : table(find(stbl.children, "stco"), 0, 1);
    const auto sizes = table(find(stbl.children, "stsz"), 4, 1);
    const auto chunks = table(find(stbl.children, "stsc"), 0, 3);
    if (!check(chunks == decltype(chunks){{1, 1, 1}} && offsets.size() == sizes.size(),
               "not one sample per chunk")) {
        return;
    }
    uint64_t time = 0;
    for (const auto &run : table(find(stbl.children, "stts"), 0, 2)) {
        for (uint64_t i = 0; i < run[0] && result->samples.size() < sizes.size(); i++) {
            const size_t at = result->samples.size();
            result->samples.push_back({offsets[at][0], static_cast<uint32_t>(sizes[at][0]), time,
                                       static_cast<uint32_t>(run[1]), stss == nullptr});
            time += run[1];
        }
    }
    check(result->samples.size() == sizes.size(), "stts does not cover all samples");
    if (stss == nullptr) {
        return;
    }
    for (const auto &record : table(stss, 0, 1)) {
        if (check(record[0] > 0 && record[0] <= result->samples.size(), "stss leaves the track")) {
            result->samples[static_cast<size_t>(record[0] - 1)].sync = true;
        }
    }
}

void reader::read_track(const box &trak, track *result)
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
    cursor in = {tkhd->payload};
    size_t width = in.u32() >> 24 == 1 ? 8 : 4;
    result->creation_time = in.number(width);
    in.take(width);
    result->id = in.u32();
    in.u32();
    result->movie_duration = in.number(width);
    in = {mdhd->payload};
    width = in.u32() >> 24 == 1 ? 8 : 4;
    in.take(2 * width);
    result->timescale = in.u32();
    result->media_duration = in.number(width);
    in = {hdlr->payload};
    in.take(8);
    result->handler = in.text();
    read_sample_entry(*stsd, result);
    read_samples(*stbl, result);
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

movie read_movie(std::span<const uint8_t> image)
{
    movie result;
    reader r;
    result.boxes = r.read_boxes(image, true);
    const box *mvhd = find(result.boxes, "moov/mvhd");
    if (r.check(mvhd != nullptr, "no movie")) {
        cursor in = {mvhd->payload};
        const size_t width = in.u32() >> 24 == 1 ? 8 : 4;
        result.creation_time = in.number(width);
        in.take(width);
        result.timescale = in.u32();
        result.duration = in.number(width);
        in.take(76);
        result.next_track_id = in.u32();
        for (const box &each : find(result.boxes, "moov")->children) {
            if (each.type == "trak") {
                r.read_track(each, &result.tracks.emplace_back());
            }
        }
    }
    result.error = r.error;
    return result;
}

} // namespace mp4_reader

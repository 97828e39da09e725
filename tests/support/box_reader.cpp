#include "tests/support/box_reader.h"

#include <algorithm>
#include <set>

namespace box_reader {
namespace {

using bytes = std::span<const uint8_t>;

// Reads big-endian numbers; reading past the end gives zeros and is remembered.
struct cursor {
    bytes data;
    size_t at = 0;
    bool overrun = false;

    uint64_t number(size_t count)
    {
        uint64_t value = 0;
        for (size_t i = 0; i < count; i++) {
            value = value << 8 | (at < data.size() ? data[at] : 0);
            overrun = overrun || at >= data.size();
            at++;
        }
        return value;
    }
    uint8_t u8()
    {
        return static_cast<uint8_t>(number(1));
    }
    uint16_t u16()
    {
        return static_cast<uint16_t>(number(2));
    }
    uint32_t u32()
    {
        return static_cast<uint32_t>(number(4));
    }
    std::vector<uint8_t> take(size_t count)
    {
        overrun = overrun || count > data.size() - std::min(at, data.size());
        std::vector<uint8_t> taken;
        for (size_t i = 0; i < count && at < data.size(); i++) {
            taken.push_back(data[at++]);
        }
        return taken;
    }
    std::string text(size_t count)
    {
        const std::vector<uint8_t> characters = take(count);
        return {characters.begin(), characters.end()};
    }
};

bytes part(bytes image, uint64_t from, uint64_t count)
{
    return image.subspan(static_cast<size_t>(from), static_cast<size_t>(count));
}

bytes inside(bytes image, const box &found)
{
    return part(image, found.offset + found.header_bytes, found.size - found.header_bytes);
}

struct reader {
    bytes image;
    std::string error;

    void fail(const std::string &what)
    {
        if (error.empty()) {
            error = what;
        }
    }

    cursor open(const box &found) const
    {
        return {inside(image, found)};
    }

    std::vector<box> read_boxes(uint64_t from, uint64_t end, bool top);
    void read_track(const box &trak, track *result);
    void read_sample_entry(const box &stsd, track *result);
    void read_avcc(const box &avcc, track *result);
    void read_esds(const box &esds, track *result);
    void read_samples(const box &stbl, track *result);
};

bool is_container(const std::string &type)
{
    static const std::set<std::string> kContainers = {"moov", "trak", "mdia", "minf",
                                                      "dinf", "stbl", "udta"};
    return kContainers.count(type) != 0;
}

std::vector<box> reader::read_boxes(uint64_t from, uint64_t end, bool top)
{
    std::vector<box> boxes;
    while (from < end) {
        cursor in = {part(image, from, end - from)};
        box found;
        found.offset = from;
        found.size = in.u32();
        found.type = in.text(4);
        if (found.size == 1) {
            found.size = in.number(8);
        } else if (found.size == 0 && top) {
            found.size = end - from;
        }
        found.header_bytes = in.at;
        if (in.overrun || found.size < found.header_bytes || found.size > end - from) {
            fail("box " + found.type + " at " + std::to_string(from) + " leaves its container");
            return boxes;
        }
        if (is_container(found.type)) {
            found.children = read_boxes(from + found.header_bytes, from + found.size, false);
        }
        from += found.size;
        boxes.push_back(found);
    }
    return boxes;
}

void reader::read_avcc(const box &avcc, track *result)
{
    cursor in = open(avcc);
    result->avc.record.assign(in.data.begin(), in.data.end());
    if (in.data.empty()) {
        return;
    }
    if (in.u8() != 1) {
        fail("configurationVersion is not 1");
    }
    in.take(3);
    result->avc.length_bytes = (in.u8() & 3u) + 1;
    const uint32_t sps_count = in.u8() & 0x1Fu;
    for (uint32_t i = 0; i < sps_count; i++) {
        result->avc.sps.push_back(in.take(in.u16()));
    }
    const uint32_t pps_count = in.u8();
    for (uint32_t i = 0; i < pps_count; i++) {
        result->avc.pps.push_back(in.take(in.u16()));
    }
    if (in.overrun || in.at != in.data.size()) {
        fail("avcC does not add up");
    }
}

// Reads a descriptor's tag and size.
// returns  a cursor on its payload; the outer cursor moves behind it
cursor descriptor(cursor *in, uint32_t expected_tag, reader *r)
{
    if (in->u8() != expected_tag) {
        r->fail("descriptor tag is not " + std::to_string(expected_tag));
    }
    size_t size = 0;
    uint8_t group = 0;
    do {
        group = in->u8();
        size = size << 7 | (group & 0x7Fu);
    } while ((group & 0x80) != 0 && !in->overrun);
    if (size > in->data.size() - std::min(in->at, in->data.size())) {
        r->fail("descriptor leaves its container");
        size = 0;
    }
    const cursor payload_in = {in->data.subspan(std::min(in->at, in->data.size()), size)};
    in->at += size;
    return payload_in;
}

void reader::read_esds(const box &esds, track *result)
{
    cursor in = open(esds);
    in.u32();
    cursor es = descriptor(&in, 3, this);
    es.take(3);
    cursor config = descriptor(&es, 4, this);
    result->esds.object_type = config.u8();
    result->esds.stream_type = config.u8() >> 2;
    config.take(11);
    if (config.at < config.data.size()) {
        const cursor info = descriptor(&config, 5, this);
        result->esds.specific_info.assign(info.data.begin(), info.data.end());
    }
    cursor sl = descriptor(&es, 6, this);
    if (sl.u8() != 2 || in.at != in.data.size() || es.at != es.data.size() ||
        config.at != config.data.size()) {
        fail("esds does not add up");
    }
}

void reader::read_sample_entry(const box &stsd, track *result)
{
    cursor in = open(stsd);
    in.u32();
    if (in.u32() != 1) {
        fail("stsd has not one entry");
        return;
    }
    const uint64_t start = in.at;
    const uint64_t size = in.u32();
    result->entry_type = in.text(4);
    in.take(8);
    if (result->handler == "vide") {
        in.take(70);
    } else {
        in.take(16);
        result->sample_rate = in.u32() >> 16;
    }
    const uint64_t base = stsd.offset + stsd.header_bytes;
    if (in.overrun || start + size != in.data.size() || in.at > start + size) {
        fail("sample entry does not fill stsd");
        return;
    }
    for (const box &child : read_boxes(base + in.at, base + start + size, false)) {
        if (child.type == "avcC") {
            read_avcc(child, result);
        } else if (child.type == "esds") {
            read_esds(child, result);
        }
    }
}

// The records of a table box: `fields` numbers of `width` bytes each, after a count. The box may
// be longer than its records.
std::vector<std::vector<uint64_t>> table(reader *r, const box *found, size_t skip, size_t fields,
                                         size_t width)
{
    std::vector<std::vector<uint64_t>> records;
    if (found == nullptr) {
        r->fail("a sample table is missing");
        return records;
    }
    cursor in = r->open(*found);
    in.take(4 + skip);
    const uint64_t count = in.u32();
    if (in.overrun || in.data.size() - in.at < count * fields * width) {
        r->fail("table " + found->type + " does not add up");
        return records;
    }
    for (uint64_t i = 0; i < count; i++) {
        std::vector<uint64_t> record;
        for (size_t field = 0; field < fields; field++) {
            record.push_back(in.number(width));
        }
        records.push_back(record);
    }
    return records;
}

void reader::read_samples(const box &stbl, track *result)
{
    const box *co64 = find(stbl.children, "co64");
    const auto offsets = co64 != nullptr ? table(this, co64, 0, 1, 8)
                                         : table(this, find(stbl.children, "stco"), 0, 1, 4);
    const auto sizes = table(this, find(stbl.children, "stsz"), 4, 1, 4);
    const auto chunks = table(this, find(stbl.children, "stsc"), 0, 3, 4);
    const auto runs = table(this, find(stbl.children, "stts"), 0, 2, 4);
    if (chunks.size() != 1 || chunks[0] != std::vector<uint64_t>{1, 1, 1} ||
        offsets.size() != sizes.size()) {
        fail("not one sample per chunk");
        return;
    }
    for (size_t i = 0; i < sizes.size(); i++) {
        sample next;
        next.offset = offsets[i][0];
        next.size = static_cast<uint32_t>(sizes[i][0]);
        result->samples.push_back(next);
    }
    size_t at = 0;
    uint64_t time = 0;
    for (const auto &run : runs) {
        for (uint64_t i = 0; i < run[0] && at < result->samples.size(); i++, at++) {
            result->samples[at].time = time;
            result->samples[at].duration = static_cast<uint32_t>(run[1]);
            time += run[1];
        }
    }
    if (at != result->samples.size()) {
        fail("stts does not cover all samples");
    }
    const box *stss = find(stbl.children, "stss");
    for (sample &each : result->samples) {
        each.sync = stss == nullptr;
    }
    if (stss != nullptr) {
        for (const auto &record : table(this, stss, 0, 1, 4)) {
            if (record[0] == 0 || record[0] > result->samples.size()) {
                fail("stss names a sample that is not there");
                return;
            }
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
    if (tkhd == nullptr || mdhd == nullptr || hdlr == nullptr || stbl == nullptr ||
        stsd == nullptr) {
        fail("a box of a track is missing");
        return;
    }
    cursor in = open(*tkhd);
    const size_t tkhd_width = (in.u32() >> 24) == 1 ? 8 : 4;
    result->creation_time = in.number(tkhd_width);
    in.number(tkhd_width);
    result->id = in.u32();
    in.u32();
    result->movie_duration = in.number(tkhd_width);
    in = open(*mdhd);
    const size_t mdhd_width = (in.u32() >> 24) == 1 ? 8 : 4;
    in.take(2 * mdhd_width);
    result->timescale = in.u32();
    result->media_duration = in.number(mdhd_width);
    in = open(*hdlr);
    in.take(8);
    result->handler = in.text(4);
    read_sample_entry(*stsd, result);
    read_samples(*stbl, result);
}

} // namespace

const box *find(const std::vector<box> &boxes, const std::string &path)
{
    const size_t slash = path.find('/');
    for (const box &each : boxes) {
        if (each.type == path.substr(0, slash)) {
            return slash == std::string::npos ? &each : find(each.children, path.substr(slash + 1));
        }
    }
    return nullptr;
}

const track *find_track(const movie &file, const std::string &handler)
{
    for (const track &each : file.tracks) {
        if (each.handler == handler) {
            return &each;
        }
    }
    return nullptr;
}

movie read_movie(std::span<const uint8_t> image)
{
    movie result;
    reader r = {image, {}};
    result.boxes = r.read_boxes(0, image.size(), true);
    const box *moov = find(result.boxes, "moov");
    const box *mvhd = find(result.boxes, "moov/mvhd");
    if (moov == nullptr || mvhd == nullptr) {
        r.fail("no movie");
        result.error = r.error;
        return result;
    }
    cursor in = r.open(*mvhd);
    const size_t width = (in.u32() >> 24) == 1 ? 8 : 4;
    result.creation_time = in.number(width);
    in.number(width);
    result.timescale = in.u32();
    result.duration = in.number(width);
    in.take(76);
    result.next_track_id = in.u32();
    for (const box &each : moov->children) {
        if (each.type == "trak") {
            result.tracks.emplace_back();
            r.read_track(each, &result.tracks.back());
        }
    }
    result.error = r.error;
    return result;
}

} // namespace box_reader

#include "mp4read/mp4_reader.h"

#include "mp4read/box_reader.h"
#include "mp4read/sample_entry.h"
#include "mp4read/sample_table.h"

#include <algorithm>
#include <set>

namespace mp4_reader {

static constexpr size_t kMaxTracks = 64;

// Skips version and flags of a header whose times are longer in version 1.
// returns: the width of its times and durations
static size_t take_version(cursor &in)
{
    return in.u32() >> 24 == 1 ? 8 : 4;
}

static void read_track(reading &state, const box &trak, const sample_sink &sink, track &result)
{
    const box *const tkhd = find(trak.children, "tkhd");
    const box *const mdhd = find(trak.children, "mdia/mdhd");
    const box *const hdlr = find(trak.children, "mdia/hdlr");
    const box *const stbl = find(trak.children, "mdia/minf/stbl");
    const box *const stsd = find(trak.children, "mdia/minf/stbl/stsd");
    if (!check(state, tkhd != nullptr && mdhd != nullptr && hdlr != nullptr && stsd != nullptr,
               "a box of a track is missing")) {
        return;
    }
    cursor header = {tkhd->payload};
    size_t width = take_version(header);
    result.creation_time = header.number(width);
    header.take(width); // modification_time
    result.id = header.u32();
    header.u32(); // reserved
    result.movie_duration = header.number(width);
    cursor media = {mdhd->payload};
    width = take_version(media);
    media.take(2 * width); // creation_time, modification_time
    result.timescale = media.u32();
    result.media_duration = media.number(width);
    cursor handler = {hdlr->payload};
    handler.take(8); // version, flags, pre_defined
    result.handler = handler.text();
    check(state, !header.overrun && !media.overrun && !handler.overrun, "a header is too short");
    read_sample_entry(state, *stsd, result);
    read_samples(state, *stbl, sink, result);
}

static void read_movie_header(reading &state, const box &mvhd, movie &result)
{
    cursor in = {mvhd.payload};
    const size_t width = take_version(in);
    result.creation_time = in.number(width);
    in.take(width); // modification_time
    result.timescale = in.u32();
    result.duration = in.number(width);
    in.take(76); // rate to pre_defined
    result.next_track_id = in.u32();
    check(state, !in.overrun, "the movie header is too short");
}

static void read_tracks(reading &state, const box &moov, const sample_sink &sink, movie &result)
{
    const box *const mvex = find(moov.children, "mvex");
    result.is_fragmented = mvex != nullptr;
    const box *const mehd = mvex != nullptr ? find(mvex->children, "mehd") : nullptr;
    if (mehd != nullptr) {
        cursor in = {mehd->payload};
        result.duration = in.number(take_version(in)); // with the fragments
    }
    limit(state, mvex == nullptr, "the movie continues in fragments, whose frames are not read");
    for (const box &each : moov.children) {
        if (each.type == "trak" &&
            limit(state, result.tracks.size() < kMaxTracks, "too many tracks to read them all")) {
            state.where = "track " + std::to_string(result.tracks.size() + 1) + ": ";
            read_track(state, each, sink, result.tracks.emplace_back());
            state.where.clear();
        }
    }
}

// Whether the image begins with a box that MP4 files begin with.
static bool looks_like_movie(bytes image)
{
    static const std::set<std::string> first_boxes = {"ftyp", "styp", "mdat", "moov", "free",
                                                      "skip", "wide", "uuid", "pnot"};
    cursor in = {image};
    in.take(4); // size
    return first_boxes.count(in.text()) != 0;
}

static void read_image(reading &state, bytes image, const sample_sink &sink, movie &result)
{
    if (!check(state, looks_like_movie(image), "this is not an MP4 file")) {
        return;
    }
    result.boxes = read_boxes(state, image, 0);
    const box *const moov = find(result.boxes, "moov");
    const box *const mvhd = find(result.boxes, "moov/mvhd");
    if (check(state, moov != nullptr, "no movie box: the recording was not finished") &&
        check(state, mvhd != nullptr, "no movie header")) {
        read_movie_header(state, *mvhd, result);
        read_tracks(state, *moov, sink, result);
    }
}

movie read_movie(std::span<const uint8_t> image, const sample_sink &sink,
                 const std::function<void()> &pause)
{
    movie result;
    reading state = {.pause = pause};
    read_image(state, image, sink, result);
    result.faults = std::move(state.faults);
    result.notes = std::move(state.notes);
    return result;
}

movie read_movie(std::span<const uint8_t> image)
{
    return read_movie(image, [](track *of, const sample &next) { of->samples.push_back(next); });
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

} // namespace mp4_reader

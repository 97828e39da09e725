#include "client/finished_file.h"

#include <array>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

// Boxes of ISO/IEC 14496-12, by their four characters.
static constexpr uint32_t four_characters(const char (&text)[5])
{
    uint32_t value = 0;
    for (int i = 0; i < 4; i++) {
        value = value << 8 | static_cast<uint8_t>(text[i]);
    }
    return value;
}

struct box {
    uint32_t type;
    uint64_t begin; // of the content
    uint64_t end;
};

struct walk {
    int file;
    file_summary summary;
    track_summary track; // the one whose boxes are being read
    uint32_t handler;
    bool has_media;
    bool has_movie;
};

static bool read_at(int file, uint64_t position, std::span<uint8_t> bytes)
{
    return pread(file, bytes.data(), bytes.size(), static_cast<off_t>(position)) ==
           static_cast<ssize_t>(bytes.size());
}

template <size_t size>
static std::optional<uint64_t> read_number(int file, uint64_t position)
{
    std::array<uint8_t, size> bytes;
    if (!read_at(file, position, bytes)) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (const uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

static std::optional<box> read_box(int file, uint64_t begin, uint64_t end)
{
    const std::optional<uint64_t> size = read_number<4>(file, begin);
    const std::optional<uint64_t> type = read_number<4>(file, begin + 4);
    const std::optional<uint64_t> large = read_number<8>(file, begin + 8);
    if (!size || !type || (*size == 1 && !large)) {
        return std::nullopt;
    }
    const uint64_t header = *size == 1 ? 16 : 8;
    const uint64_t whole = *size == 1 ? *large : *size;
    if (whole < header || whole > end - begin) {
        return std::nullopt;
    }
    return box{static_cast<uint32_t>(*type), begin + header, begin + whole};
}

// SampleSizeBox: version and flags, sample_size, sample_count, then the sizes
static bool read_sample_sizes(walk &here, const box &sizes)
{
    const std::optional<uint64_t> each = read_number<4>(here.file, sizes.begin + 4);
    const std::optional<uint64_t> count = read_number<4>(here.file, sizes.begin + 8);
    if (!each || !count) {
        return false;
    }
    here.track = {.frames = *count, .bytes = *each * *count};
    if (*each != 0) {
        return true;
    }
    std::array<uint8_t, 1 << 14> part;
    const uint64_t end = sizes.begin + 12 + 4 * *count;
    if (end > sizes.end) {
        return false;
    }
    for (uint64_t at = sizes.begin + 12; at < end; at += part.size()) {
        const std::span<uint8_t> entries(part.data(), std::min<uint64_t>(part.size(), end - at));
        if (!read_at(here.file, at, entries)) {
            return false;
        }
        for (size_t i = 0; i < entries.size(); i += 4) {
            here.track.bytes += uint64_t{entries[i]} << 24 | uint64_t{entries[i + 1]} << 16 |
                                uint64_t{entries[i + 2]} << 8 | entries[i + 3];
        }
    }
    return true;
}

// MovieHeaderBox, version 0: the time scale and the duration behind two dates
static bool read_movie_header(walk &here, const box &header)
{
    const std::optional<uint64_t> scale = read_number<4>(here.file, header.begin + 12);
    const std::optional<uint64_t> duration = read_number<4>(here.file, header.begin + 16);
    if (!scale || !duration || *scale == 0) {
        return false;
    }
    here.summary.duration_s = static_cast<double>(*duration) / static_cast<double>(*scale);
    return true;
}

static bool read_boxes(walk &here, uint64_t begin, uint64_t end);

static bool read_track(walk &here, const box &track)
{
    here.track = {};
    here.handler = 0;
    if (!read_boxes(here, track.begin, track.end)) {
        return false;
    }
    if (here.handler == four_characters("vide")) {
        here.summary.video = here.track;
    } else if (here.handler == four_characters("soun")) {
        here.summary.audio = here.track;
    }
    return true;
}

static bool read_content(walk &here, const box &inner)
{
    switch (inner.type) {
    case four_characters("moov"):
        here.has_movie = true;
        return read_boxes(here, inner.begin, inner.end);
    case four_characters("mdia"):
    case four_characters("minf"):
    case four_characters("stbl"):
        return read_boxes(here, inner.begin, inner.end);
    case four_characters("trak"):
        return read_track(here, inner);
    case four_characters("mdat"):
        here.has_media = true;
        return true;
    case four_characters("mvhd"):
        return read_movie_header(here, inner);
    case four_characters("hdlr"): {
        const std::optional<uint64_t> handler = read_number<4>(here.file, inner.begin + 8);
        // The media information may carry a data handler beside the media's own.
        if (handler &&
            (*handler == four_characters("vide") || *handler == four_characters("soun"))) {
            here.handler = static_cast<uint32_t>(*handler);
        }
        return handler.has_value();
    }
    case four_characters("stsz"):
        return read_sample_sizes(here, inner);
    default:
        return true;
    }
}

static bool read_boxes(walk &here, uint64_t begin, uint64_t end)
{
    while (begin < end) {
        const std::optional<box> inner = read_box(here.file, begin, end);
        if (!inner || !read_content(here, *inner)) {
            return false;
        }
        begin = inner->end;
    }
    return true;
}

std::optional<file_summary> finished_file_read(int file)
{
    struct stat status = {};
    if (fstat(file, &status) != 0) {
        return std::nullopt;
    }
    walk here = {.file = file};
    here.summary.bytes = static_cast<uint64_t>(status.st_size);
    if (!read_boxes(here, 0, here.summary.bytes) || !here.has_media || !here.has_movie) {
        return std::nullopt;
    }
    return here.summary;
}

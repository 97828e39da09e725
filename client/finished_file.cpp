#include "client/finished_file.h"

#include "client/mapped_file.h"
#include "client/mp4_reader.h"

static track_summary summarise(const mp4_reader::movie &movie, const char *handler)
{
    track_summary summary;
    if (const mp4_reader::track *const track = mp4_reader::find_track(movie, handler)) {
        summary.frames = track->samples.size();
        for (const mp4_reader::sample &sample : track->samples) {
            summary.bytes += sample.size;
        }
    }
    return summary;
}

std::optional<file_summary> finished_file_read(int file)
{
    const std::unique_ptr<mapped_file> mapped = mapped_file_of(file);
    if (mapped == nullptr) {
        return std::nullopt;
    }
    const mp4_reader::movie movie = mp4_reader::read_movie(mapped->bytes);
    if (!movie.error.empty() || movie.timescale == 0) {
        return std::nullopt;
    }
    return file_summary{.bytes = mapped->bytes.size(),
                        .duration_s = static_cast<double>(movie.duration) / movie.timescale,
                        .video = summarise(movie, "vide"),
                        .audio = summarise(movie, "soun")};
}

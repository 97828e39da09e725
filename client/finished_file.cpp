#include "client/finished_file.h"

#include "client/failure.h"
#include "client/mapped_file.h"
#include "client/mp4_reader.h"

#include <cerrno>
#include <cstring>

static track_summary summarise(const mp4_reader::movie &movie, const char *handler)
{
    track_summary summary;
    if (const mp4_reader::track *const track = mp4_reader::find_track(movie, handler)) {
        summary.frames = track->samples.size() + track->samples_left_out;
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
        throw failure(exit_code::output,
                      std::string("the finished file cannot be read back: ") + strerror(errno));
    }
    const mp4_reader::movie movie = mp4_reader::read_movie(mapped->bytes);
    if (mp4_reader::find(movie.boxes, "moov") == nullptr) {
        return std::nullopt;
    }
    file_summary summary = {.bytes = mapped->bytes.size(),
                            .video = summarise(movie, "vide"),
                            .audio = summarise(movie, "soun"),
                            .faults = movie.faults,
                            .notes = movie.notes};
    if (movie.timescale != 0) {
        summary.duration_s = static_cast<double>(movie.duration) / movie.timescale;
    } else {
        summary.faults.push_back("the movie has a time scale of 0");
    }
    return summary;
}

std::vector<std::string> finished_file_remarks(const file_summary &file)
{
    std::vector<std::string> remarks;
    if (!file.faults.empty()) {
        remarks.push_back("the finished file may not play everywhere: " + file.faults.front() +
                          " (tdmbrec info tells more)");
    }
    if (!file.notes.empty()) {
        remarks.push_back("the finished file was not read back whole: " + file.notes.front());
    }
    return remarks;
}

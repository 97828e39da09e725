#include "client/finished_file.h"

#include "client/failure.h"
#include "client/input/mapped_file.h"
#include "mp4read/mp4_reader.h"

static void count(track_summary &summary, const mp4_reader::sample &frame)
{
    summary.frames++;
    summary.bytes += frame.size;
}

static uint64_t frames_left_out(const mp4_reader::movie &movie, const char *handler)
{
    const mp4_reader::track *const track = mp4_reader::find_track(movie, handler);
    return track != nullptr ? track->samples_left_out : 0;
}

std::optional<file_summary> finished_file_read(int file)
{
    const std::unique_ptr<mapped_file> mapped = mapped_file_of(file);
    if (mapped == nullptr) {
        fail_with_errno(exit_code::output, "the finished file cannot be read back");
    }
    file_summary summary = {.bytes = mapped->bytes.size()};
    const auto count_frame = [&](const mp4_reader::track *of, const mp4_reader::sample &frame) {
        count(of->handler == "vide" ? summary.video : summary.audio, frame);
    };
    // A file may be larger than the memory.
    const mp4_reader::movie movie =
        mp4_reader::read_movie(mapped->bytes, count_frame, [&] { mapped_file_release(*mapped); });
    if (mp4_reader::find(movie.boxes, "moov") == nullptr) {
        return std::nullopt;
    }
    summary.video.frames += frames_left_out(movie, "vide");
    summary.audio.frames += frames_left_out(movie, "soun");
    summary.faults = movie.faults;
    summary.notes = movie.notes;
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
                          " (tdmbrec info reports more)");
    }
    if (!file.notes.empty()) {
        remarks.push_back("the finished file was not read back completely: " + file.notes.front());
    }
    return remarks;
}

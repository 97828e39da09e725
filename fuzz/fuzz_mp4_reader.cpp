// Any bytes as an MP4 file: the reader and the report stay within them.
#include "client/report/media_report.h"
#include "fuzz/input.h"
#include "mp4read/mp4_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const mp4_reader::movie movie = mp4_reader::read_movie({data, size});
    const media_report report = media_report_make("fuzz.mp4", {data, size});
    require(movie.faults.empty() || !report.faults.empty(), "the report contains the faults");
    for (const mp4_reader::track &track : movie.tracks) {
        require(track.list.size() == track.samples.size(), "the list has as many samples");
        for (auto at = track.list.begin(); at != track.list.end(); ++at) {
            require(*at == track.samples[at.index], "the list has the same samples");
        }
        for (const mp4_reader::sample &sample : track.samples) {
            require(!report.faults.empty() || sample.offset + sample.size <= size,
                    "the samples of a valid file are in it");
        }
    }
    return 0;
}

// Makes from a finished recording the file that a normal stop after one of its first frames would
// have left. Times and settings are found without a journal: those of the pictures in the tables,
// those of the sound by counting its samples, the rest as the recorder sets it. With all frames the
// result has to equal the recording; otherwise it is not made.
//
// usage: normal_stop RECORDING                lists the frames: offset of the end, time (ms), kind
//        normal_stop RECORDING FRAMES OUTPUT  makes the file
#include "tests/support/normal_stop.h"

#include "aacenc/aac_enc.h"
#include "mp4read/mp4_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

static constexpr uint32_t kVideoTicksPerMs = 90;

struct source_recording {
    Bytes image;
    mp4_reader::movie movie;
    const mp4_reader::track *video = nullptr;
    const mp4_reader::track *audio = nullptr;
    std::vector<muxed_frame> frames; // in the order of the file
};

[[noreturn]] static void give_up(const std::string &why)
{
    std::fprintf(stderr, "normal_stop: %s\n", why.c_str());
    std::exit(1);
}

static void add_frames(source_recording &source, const mp4_reader::track &track, int32_t type)
{
    for (size_t i = 0; i < track.samples.size(); i++) {
        const mp4_reader::sample &sample = track.samples[i];
        const uint64_t time_ms = type == MUX_TYPE_VIDEO
                                     ? sample.time / kVideoTicksPerMs
                                     : uint64_t{i} * AACENC_FRAME_SAMPLES * 1000 / track.timescale;
        const uint8_t *const from = source.image.data() + sample.offset;
        source.frames.push_back({.type = type,
                                 .flags = sample.sync ? uint32_t{MUX_FRAME_KEY} : 0,
                                 .time_ms = static_cast<uint32_t>(time_ms),
                                 .offset = static_cast<int64_t>(sample.offset),
                                 .bytes = Bytes(from, from + sample.size)});
    }
}

static source_recording read_recording(const std::string &path)
{
    source_recording source = {.image = read_file(path)};
    source.movie = mp4_reader::read_movie(source.image);
    source.video = mp4_reader::find_track(source.movie, "vide");
    source.audio = mp4_reader::find_track(source.movie, "soun");
    if (!mp4_reader::first_fault(source.movie).empty() || source.video == nullptr ||
        source.audio == nullptr) {
        give_up(path + " is not a whole recording: " + mp4_reader::first_fault(source.movie));
    }
    add_frames(source, *source.video, MUX_TYPE_VIDEO);
    add_frames(source, *source.audio, MUX_TYPE_AUDIO);
    std::sort(source.frames.begin(), source.frames.end(),
              [](const muxed_frame &a, const muxed_frame &b) { return a.offset < b.offset; });
    return source;
}

static Bytes make_file(const source_recording &source, size_t count)
{
    muxer_settings settings = recorder_settings(source.video->avc.record);
    settings.input.m_iAudioSampleRate = static_cast<int32_t>(source.audio->timescale);
    settings.audio_configuration = source.audio->esds.specific_info;
    const auto begin = source.frames.begin();
    return normal_stop(settings, {begin, begin + static_cast<std::ptrdiff_t>(count)});
}

static void list_frames(const source_recording &source)
{
    for (const muxed_frame &frame : source.frames) {
        std::printf("%lld %u %s\n",
                    static_cast<long long>(frame.offset) +
                        static_cast<long long>(frame.bytes.size()),
                    frame.time_ms, frame.type == MUX_TYPE_VIDEO ? "picture" : "sound");
    }
}

static void write_file(const std::string &path, const Bytes &bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        give_up("cannot make " + path);
    }
}

static void run(int argc, char **argv)
{
    if (argc != 2 && argc != 4) {
        give_up("usage: normal_stop RECORDING [FRAMES OUTPUT]");
    }
    const source_recording source = read_recording(argv[1]);
    if (argc == 2) {
        list_frames(source);
        return;
    }
    const size_t count = std::strtoul(argv[2], nullptr, 10);
    if (count == 0 || count > source.frames.size()) {
        give_up("the recording does not have so many frames");
    }
    if (make_file(source, source.frames.size()) != source.image) {
        give_up("the recording has other times or settings than those found here");
    }
    write_file(argv[3], make_file(source, count));
}

int main(int argc, char **argv)
{
    try {
        run(argc, argv);
    } catch (const std::exception &failure) {
        give_up(failure.what());
    }
    return 0;
}

// Makes the file and the journal of an interrupted recording: the frames of a finished recording
// over and over, in the order of its file, with times that continue.
//
// usage: interrupted_loop RECORDING TIMES OUTPUT    also makes OUTPUT.journal
#include "journal/journal.h"
#include "mp4read/mp4_reader.h"
#include "recovery/recorder_settings.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

static constexpr uint64_t kSession = 0x0123456789ABCDEF;
static constexpr size_t kHeadBytes = 36;   // up to the media data
static constexpr size_t kGroupFrames = 62; // 0.8 s of 30 pictures and 46.9 sounds a second

struct looped_frame {
    uint64_t offset;
    uint64_t time_us; // that a loop adds to
    journal_frame_t record;
};

struct loop_source {
    std::vector<uint8_t> image;
    std::vector<looped_frame> frames;
    uint64_t loop_us = 0;
    journal_settings_t settings = {};
};

[[noreturn]] static void give_up(const std::string &why)
{
    std::fprintf(stderr, "interrupted_loop: %s\n", why.c_str());
    std::exit(1);
}

static void add_frames(loop_source &source, const mp4_reader::track &track, int32_t type)
{
    for (const mp4_reader::sample &sample : track.samples) {
        const uint32_t flags = type == MUX_TYPE_AUDIO || sample.sync ? uint32_t{MUX_FRAME_KEY} : 0;
        source.frames.push_back({.offset = sample.offset,
                                 .time_us = sample.time * 1'000'000 / track.timescale,
                                 .record = {.type = type, .bytes = sample.size, .flags = flags}});
    }
}

static loop_source read_recording(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    loop_source source;
    source.image = {std::istreambuf_iterator<char>(file), {}};
    const mp4_reader::movie movie = mp4_reader::read_movie(source.image);
    const mp4_reader::track *const video = mp4_reader::find_track(movie, "vide");
    const mp4_reader::track *const audio = mp4_reader::find_track(movie, "soun");
    if (!mp4_reader::first_fault(movie).empty() || video == nullptr || audio == nullptr) {
        give_up(std::string(path) + " is not a complete recording");
    }
    add_frames(source, *video, MUX_TYPE_VIDEO);
    add_frames(source, *audio, MUX_TYPE_AUDIO);
    std::sort(source.frames.begin(), source.frames.end(),
              [](const looped_frame &a, const looped_frame &b) { return a.offset < b.offset; });
    // The last picture lasts no time: the sound gives the length.
    source.loop_us = audio->samples.size() * 1'024'000'000 / audio->timescale;
    const std::vector<uint8_t> &record = video->avc.record;
    fill_recorder_settings(&source.settings, static_cast<int32_t>(audio->timescale),
                           static_cast<int32_t>(audio->channels));
    source.settings.session = kSession;
    if (record.size() > kJournalConfigurationBytes) {
        give_up("the decoder configuration is too long for a journal");
    }
    std::copy(record.begin(), record.end(), source.settings.video_configuration);
    source.settings.video_configuration_bytes = static_cast<uint32_t>(record.size());
    return source;
}

static void put(std::ofstream &file, const uint8_t *bytes, size_t count)
{
    file.write(reinterpret_cast<const char *>(bytes), static_cast<std::streamsize>(count));
}

// Writes frames and, each time that a group has its number of them, the group.
static void write_loops(const loop_source &source, uint64_t loops, std::ofstream &media,
                        std::ofstream &journal)
{
    static journal_group_t group;
    uint64_t offset = kHeadBytes;
    journal_begin_group(&group, kSession, offset);
    for (uint64_t i = 0; i < loops * source.frames.size(); i++) {
        const looped_frame &frame = source.frames[i % source.frames.size()];
        const uint64_t time_us = frame.time_us + i / source.frames.size() * source.loop_us;
        const uint8_t *const bytes = source.image.data() + frame.offset;
        journal_frame_t record = frame.record;
        record.time_ms = static_cast<uint32_t>(time_us / 1000);
        if (!journal_add_frame(&group, &record, bytes)) {
            give_up("a group is full");
        }
        put(media, bytes, record.bytes);
        offset += record.bytes;
        if (group.frames == kGroupFrames) {
            put(journal, group.bytes, journal_end_group(&group));
            journal_begin_group(&group, kSession, offset);
        }
    }
    put(journal, group.bytes, journal_end_group(&group));
}

static void run(int argc, char **argv)
{
    if (argc != 4) {
        give_up("usage: interrupted_loop RECORDING TIMES OUTPUT");
    }
    const loop_source source = read_recording(argv[1]);
    std::ofstream media(argv[3], std::ios::binary);
    std::ofstream journal(std::string(argv[3]) + ".journal", std::ios::binary);
    uint8_t head[kJournalHeadBytes];
    put(journal, head, journal_write_head(&source.settings, head));
    std::vector<uint8_t> begin(source.image.begin(), source.image.begin() + kHeadBytes);
    std::memset(&begin[kHeadBytes - 8], 0, 4); // the size of the media data
    put(media, begin.data(), begin.size());
    write_loops(source, std::strtoul(argv[2], nullptr, 10), media, journal);
    if (!media.flush() || !journal.flush()) {
        give_up(std::string("cannot make ") + argv[3]);
    }
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

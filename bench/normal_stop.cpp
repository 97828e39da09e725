// Makes from a finished recording the file that a normal stop after one of its first frames would
// have left. Times and settings are found without a journal: those of the pictures in the tables,
// those of the sound by counting its samples, the rest as the recorder sets it. With all frames the
// result has to equal the recording; otherwise it is not made.
//
// usage: normal_stop RECORDING                lists the frames: offset of the end, time (ms), kind
//        normal_stop RECORDING FRAMES OUTPUT  makes the file
#include "aacenc/aac_enc.h"
#include "component/tdmbrec_interface.h"
#include "mp4mux/mp4_mux.h"
#include "mp4read/mp4_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

static constexpr uint32_t kVideoTicksPerMs = 90;

struct frame_place {
    int32_t type = 0; // MUX_TYPE_…
    uint32_t time_ms = 0;
    uint32_t flags = 0;
    uint64_t offset = 0;
    uint32_t bytes = 0;
};

struct source_recording {
    Bytes image;
    mp4_reader::movie movie;
    const mp4_reader::track *video = nullptr;
    const mp4_reader::track *audio = nullptr;
    std::vector<frame_place> frames; // in the order of the file
};

[[noreturn]] static void give_up(const std::string &why)
{
    std::fprintf(stderr, "normal_stop: %s\n", why.c_str());
    std::exit(1);
}

static Bytes read_file(const std::string &path)
{
    FILE *const file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        give_up("cannot read " + path);
    }
    Bytes bytes;
    uint8_t part[65536];
    for (size_t count = 0; (count = std::fread(part, 1, sizeof part, file)) > 0;) {
        bytes.insert(bytes.end(), part, part + count);
    }
    std::fclose(file);
    return bytes;
}

static void add_frames(source_recording &source, const mp4_reader::track &track, int32_t type)
{
    for (size_t i = 0; i < track.samples.size(); i++) {
        const mp4_reader::sample &sample = track.samples[i];
        const uint64_t time_ms = type == MUX_TYPE_VIDEO
                                     ? sample.time / kVideoTicksPerMs
                                     : uint64_t{i} * AACENC_FRAME_SAMPLES * 1000 / track.timescale;
        source.frames.push_back({.type = type,
                                 .time_ms = static_cast<uint32_t>(time_ms),
                                 .flags = sample.sync ? uint32_t{MUX_FRAME_KEY} : 0,
                                 .offset = sample.offset,
                                 .bytes = sample.size});
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
              [](const frame_place &a, const frame_place &b) { return a.offset < b.offset; });
    return source;
}

static void *open_file(const char *name, const char *mode)
{
    return std::fopen(name, mode);
}

static int close_file(void *file)
{
    return std::fclose(static_cast<FILE *>(file));
}

static size_t read_bytes(void *buffer, size_t size, size_t count, void *file)
{
    return std::fread(buffer, size, count, static_cast<FILE *>(file));
}

static size_t write_bytes(const void *buffer, size_t size, size_t count, void *file)
{
    return std::fwrite(buffer, size, count, static_cast<FILE *>(file));
}

static int seek_file(void *file, int32_t offset, int whence)
{
    return std::fseek(static_cast<FILE *>(file), offset, whence);
}

static int32_t tell_file(void *file)
{
    return static_cast<int32_t>(std::ftell(static_cast<FILE *>(file)));
}

// The muxer allocates its caches, which hold all tables: no scratch file is made.
static mp4_mux_init_t make_init(std::string &output)
{
    mp4_mux_init_t init = {};
    init.m_pfnMalloc = std::malloc;
    init.m_pfnFree = std::free;
    init.m_pfnMemcpy = std::memcpy;
    init.m_pfnMemset = std::memset;
    init.m_pfnRealloc = std::realloc;
    init.m_pfnFopen = open_file;
    init.m_pfnFread = read_bytes;
    init.m_pfnFseek = seek_file;
    init.m_pfnFtell = tell_file;
    init.m_pfnFclose = close_file;
    init.m_pfnFwrite = write_bytes;
    init.m_pfnRemove = std::remove;
    init.m_pOutput = output.data();
    init.m_uiStreamFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO;
    init.m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    init.m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init.m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init.m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    return init;
}

static mp4_mux_input_t make_input(const source_recording &source)
{
    const Bytes &avc_record = source.video->avc.record;
    const Bytes &audio_config = source.audio->esds.specific_info;
    mp4_mux_input_t input = {.m_iYear = 2009,
                             .m_iMonth = 9, // from 0
                             .m_iDay = 5,
                             .m_iHour = 17,
                             .m_iMinute = 5,
                             .m_iSecond = 18};
    input.m_iVideoWidth = TDMBREC_PICTURE_WIDTH;
    input.m_iVideoHeight = TDMBREC_PICTURE_HEIGHT;
    std::memcpy(&input.m_uiVideoFourCC, "avc1", sizeof input.m_uiVideoFourCC);
    input.m_pbyVideoPrivate = avc_record.data();
    input.m_iVideoPrivateSize = static_cast<int32_t>(avc_record.size());
    input.m_iAudioSampleRate = static_cast<int32_t>(source.audio->timescale);
    input.m_iAudioBitsPerSample = 16;
    input.m_iAudioChannels = 2;
    input.m_iAudioCodec = MUX_AUDIO_AAC;
    input.m_pbyAudioPrivate = audio_config.data();
    input.m_iAudioPrivateSize = static_cast<int32_t>(audio_config.size());
    return input;
}

static void put_frame(void **handle, const frame_place &frame, const uint8_t *data)
{
    mp4_mux_putstream_t stream = {.m_pbyData = data,
                                  .m_iDataSize = static_cast<int32_t>(frame.bytes),
                                  .m_iType = frame.type,
                                  .m_uiTimeStamp = frame.time_ms,
                                  .m_uiTimeStamp2 = frame.time_ms,
                                  .m_uiFlags = frame.flags};
    if (QVR_MP4_MUX(MUX_PUTFRAME, handle, &stream, nullptr) != 0) {
        give_up("a frame was refused");
    }
}

// A recording without sound ends in one frame of silence.
// source: ISO/IEC 14496-3, Tables 4.3 and 4.5
static void put_silence(void **handle)
{
    static constexpr uint8_t kSilentPair[] = {0x20, 0, 0, 0, 0, 0, 0x0E};
    put_frame(handle, {.type = MUX_TYPE_AUDIO, .bytes = sizeof kSilentPair}, kSilentPair);
}

static void make_file(const source_recording &source, size_t count, std::string output)
{
    mp4_mux_init_t init = make_init(output);
    mp4_mux_input_t input = make_input(source);
    void *handle = nullptr;
    if (QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input) != 0) {
        give_up("cannot make " + output);
    }
    bool has_sound = false;
    for (size_t i = 0; i < count; i++) {
        const frame_place &frame = source.frames[i];
        has_sound = has_sound || frame.type == MUX_TYPE_AUDIO;
        put_frame(&handle, frame, source.image.data() + frame.offset);
    }
    if (!has_sound) {
        put_silence(&handle);
    }
    if (QVR_MP4_MUX(MUX_CLOSE, &handle, nullptr, nullptr) != 0) {
        give_up("cannot finish " + output);
    }
}

static void list_frames(const source_recording &source)
{
    for (const frame_place &frame : source.frames) {
        std::printf("%llu %u %s\n", static_cast<unsigned long long>(frame.offset + frame.bytes),
                    frame.time_ms, frame.type == MUX_TYPE_VIDEO ? "picture" : "sound");
    }
}

int main(int argc, char **argv)
{
    if (argc != 2 && argc != 4) {
        give_up("usage: normal_stop RECORDING [FRAMES OUTPUT]");
    }
    const source_recording source = read_recording(argv[1]);
    if (argc == 2) {
        list_frames(source);
        return 0;
    }
    const size_t count = std::strtoul(argv[2], nullptr, 10);
    if (count == 0 || count > source.frames.size()) {
        give_up("the recording does not have so many frames");
    }
    make_file(source, source.frames.size(), argv[3]);
    if (read_file(argv[3]) != source.image) {
        give_up("the recording has other times or settings than those found here");
    }
    make_file(source, count, argv[3]);
    return 0;
}

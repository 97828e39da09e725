// The muxer beside plain copies of the same bytes, beside libavformat and beside a remuxing
// command: CPU time per frame and of the close. Files lie in /dev/shm, in memory.
//
// Every comparison runs both sides in turn within one iteration, so that "ratio" (the muxer's time
// over the other's, or the last frames' over the first) means the same machine at the same moment.
#include "bench/av_mux.h"
#include "bench/programme_frames.h"
#include "mp4mux/mp4_mux.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

static constexpr int32_t kOutputCacheBytes = 0x100000; // the sizes that the recorder lends
static constexpr int32_t kVideoCacheBytes = 0xC0000;
static constexpr int32_t kAudioCacheBytes = 0x80000;
static constexpr int32_t kCloseBytes = 0x300000;
static constexpr uint32_t kFrames = 200000;
static constexpr uint32_t kManyFrames = 2000000;
static constexpr double kNs = 1e9;

static std::string folder; // of all files

// What the callbacks were asked for.
static uint64_t output_writes, output_bytes, allocations, scratch_bytes;

// The output may be a null sink: it keeps its position alone.
struct file_handle {
    FILE *stream = nullptr;
    bool is_output = false;
    int64_t position = 0;
    int64_t size = 0;
};

static bool output_is_null;

static void *open_file(const char *name, const char *mode)
{
    file_handle *file = new file_handle;
    file->is_output = std::strstr(name, ".mp4") != nullptr;
    if (!file->is_output || !output_is_null) {
        file->stream = std::fopen(name, mode);
        std::setvbuf(file->stream, nullptr, _IONBF, 0);
    }
    return file;
}

static size_t read_file(void *buffer, size_t size, size_t count, void *handle)
{
    file_handle *file = static_cast<file_handle *>(handle);
    return file->stream != nullptr ? std::fread(buffer, size, count, file->stream) : 0;
}

static size_t write_file(const void *buffer, size_t size, size_t count, void *handle)
{
    file_handle *file = static_cast<file_handle *>(handle);
    output_writes += file->is_output ? 1 : 0;
    scratch_bytes += file->is_output ? 0 : count;
    file->position += static_cast<int64_t>(count);
    file->size = std::max(file->size, file->position);
    return file->stream != nullptr ? std::fwrite(buffer, size, count, file->stream) : count;
}

static int seek_file64(void *handle, int64_t offset, int whence)
{
    file_handle *file = static_cast<file_handle *>(handle);
    file->position = offset + (whence == SEEK_END ? file->size : 0);
    return file->stream != nullptr ? fseeko(file->stream, offset, whence) : 0;
}

static int seek_file(void *handle, int32_t offset, int whence)
{
    return seek_file64(handle, offset, whence);
}

static int64_t tell_file64(void *handle)
{
    const file_handle *file = static_cast<file_handle *>(handle);
    return file->stream != nullptr ? ftello(file->stream) : file->position;
}

static int32_t tell_file(void *handle)
{
    return static_cast<int32_t>(tell_file64(handle));
}

static int close_file(void *handle)
{
    file_handle *file = static_cast<file_handle *>(handle);
    output_bytes = file->is_output ? static_cast<uint64_t>(file->size) : output_bytes;
    const int result = file->stream != nullptr ? std::fclose(file->stream) : 0;
    delete file;
    return result;
}

static void *allocate(size_t size)
{
    allocations++;
    return std::malloc(size);
}

static void *open_recording(const std::string &name, std::vector<uint8_t> *cache)
{
    static std::string output;
    output = name;
    mp4_mux_init_t init = {};
    init.m_pfnMalloc = allocate;
    init.m_pfnFree = std::free;
    init.m_pfnMemcpy = std::memcpy;
    init.m_pfnMemset = std::memset;
    init.m_pfnFopen = open_file;
    init.m_pfnFread = read_file;
    init.m_pfnFseek = seek_file;
    init.m_pfnFtell = tell_file;
    init.m_pfnFclose = close_file;
    init.m_pfnFwrite = write_file;
    init.m_pfnRemove = std::remove;
    init.m_pfnFseek64 = seek_file64;
    init.m_pfnFtell64 = tell_file64;
    init.m_pOutput = output.data();
    init.m_uiStreamFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO;
    init.m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    init.m_pCacheMem = cache->data();
    init.m_iCacheSize = kOutputCacheBytes;
    init.m_iVideoCacheSize = kVideoCacheBytes;
    init.m_iAudioCacheSize = kAudioCacheBytes;
    init.m_pszTempDir = folder.c_str();
    mp4_mux_input_t input = {.m_iYear = 2009, .m_iMonth = 9, .m_iDay = 5};
    input.m_iVideoWidth = 320;
    input.m_iVideoHeight = 240;
    std::memcpy(&input.m_uiVideoFourCC, "avc1", 4);
    input.m_pbyVideoPrivate = kAvcRecord;
    input.m_iVideoPrivateSize = sizeof(kAvcRecord);
    input.m_iAudioSampleRate = 48000;
    input.m_iAudioChannels = 2;
    input.m_iAudioCodec = 0xAAC0;
    input.m_pbyAudioPrivate = kAudioConfig;
    input.m_iAudioPrivateSize = sizeof(kAudioConfig);
    void *handle = nullptr;
    return QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input) == 0 ? handle : nullptr;
}

static double cpu_seconds()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

static double wall_seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

[[noreturn]] static void give_up(const char *why)
{
    std::fprintf(stderr, "bench_mp4mux: %s\n", why);
    std::exit(1);
}

// A promise that a recording broke, or null. All figures are shown before it ends the program.
static const char *broken_promise;

struct recording_times {
    double frames = 0; // CPU seconds
    std::array<double, 10> tenths = {};
    double close = 0;
    double close_wall = 0;
    double allocations = 0;    // after the open
    double writes_a_cache = 0; // of the media data, for each time that it fills the cache
};

// Records frames of picture_bytes on the average and checks what came of it.
static recording_times record(const std::string &name, uint32_t frames, uint32_t picture_bytes)
{
    static std::vector<uint8_t> cache(kOutputCacheBytes + kVideoCacheBytes + kAudioCacheBytes);
    static std::vector<uint8_t> close_memory(kCloseBytes);
    recording_times times;
    output_writes = scratch_bytes = 0;
    void *handle = open_recording(name, &cache);
    const uint64_t allocations_at_open = allocations;
    frame_source source = {.picture_bytes = picture_bytes};
    int64_t estimate = 0;
    for (double &tenth : times.tenths) {
        const double start = cpu_seconds();
        for (uint32_t i = 0; i < frames / 10; i++) {
            mp4_mux_putstream_t frame = source.next();
            if (QVR_MP4_MUX(MUX_PUTFRAME, &handle, &frame, &estimate) != 0) {
                give_up("a frame was refused");
            }
        }
        tenth = cpu_seconds() - start;
        times.frames += tenth;
    }
    const uint64_t writes = output_writes;
    mp4_mux_closemem_t lent = {close_memory.data(), kCloseBytes};
    const double start = cpu_seconds();
    const double wall_start = wall_seconds();
    if (QVR_MP4_MUX(MUX_CLOSE, &handle, &lent, nullptr) != 0) {
        give_up("the close failed");
    }
    times.close = cpu_seconds() - start;
    times.close_wall = wall_seconds() - wall_start;
    times.allocations = static_cast<double>(allocations - allocations_at_open);
    times.writes_a_cache = static_cast<double>(writes) /
                           std::ceil(static_cast<double>(source.media_bytes) / kOutputCacheBytes);
    if (std::abs(static_cast<double>(estimate) - static_cast<double>(output_bytes)) > 64) {
        give_up("the file is not the expected one");
    }
    if (times.allocations != 0) {
        broken_promise = "a frame allocated";
    } else if (writes > source.media_bytes / kOutputCacheBytes + 1) {
        broken_promise = "a cache was written more than once";
    }
    return times;
}

static std::string path(const char *name)
{
    return folder + "/" + name;
}

// The least of several times is the one that the rest of the machine disturbed least.
struct least {
    double mux = HUGE_VAL;
    double other = HUGE_VAL;

    void note(double mux_seconds, double other_seconds)
    {
        mux = std::min(mux, mux_seconds);
        other = std::min(other, other_seconds);
    }
    void show(benchmark::State &state, const char *name, double scale) const
    {
        state.counters["mux"] = mux * scale;
        state.counters[name] = other * scale;
        state.counters["ratio"] = mux / other;
    }
};

// Plain fwrite of the same frames from the same buffers.
static double write_frames(uint32_t frames, uint32_t picture_bytes)
{
    FILE *file = std::fopen(path("plain").c_str(), "wb");
    frame_source source = {.picture_bytes = picture_bytes};
    const double start = cpu_seconds();
    for (uint32_t i = 0; i < frames; i++) {
        const mp4_mux_putstream_t frame = source.next();
        std::fwrite(frame.m_pbyData, 1, static_cast<size_t>(frame.m_iDataSize), file);
    }
    std::fclose(file);
    return cpu_seconds() - start;
}

static void beside_fwrite(benchmark::State &state)
{
    least times;
    for (auto _ : state) {
        const double plain = write_frames(kFrames, kPictureBytes);
        std::remove(path("plain").c_str());
        times.note(record(path("out.mp4"), kFrames, kPictureBytes).frames, plain);
        std::remove(path("out.mp4").c_str());
    }
    times.show(state, "fwrite", kNs / kFrames);
}
BENCHMARK(beside_fwrite)->Iterations(5);

static double mux_with_libavformat(bool owned)
{
    const double start = cpu_seconds();
    void *context = av_mux_open();
    frame_source source;
    for (uint32_t i = 0; i < kFrames && context != nullptr; i++) {
        if (!av_mux_write(context, source.next(), owned)) {
            give_up("libavformat refused a frame");
        }
    }
    const double seconds = cpu_seconds() - start;
    if (context == nullptr || !av_mux_close(context)) {
        give_up("libavformat failed");
    }
    return seconds;
}

// range: whether libavformat's packets own their bytes, as those of a reader or an encoder do, or
// only point at the bytes that all frames share
static void beside_libavformat(benchmark::State &state)
{
    least times;
    output_is_null = true;
    for (auto _ : state) {
        const double other = mux_with_libavformat(state.range(0) != 0);
        times.note(record(path("out.mp4"), kFrames, kPictureBytes).frames, other);
    }
    output_is_null = false;
    times.show(state, "av_write_frame", kNs / kFrames);
}
BENCHMARK(beside_libavformat)->ArgName("owned")->Arg(1)->Arg(0)->Iterations(5);

struct children_times {
    double user = 0;
    double all = 0;
};

static double seconds_of(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

static children_times times_of_children()
{
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    return {seconds_of(usage.ru_utime), seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime)};
}

// Both write a file, and most of the muxer's time goes into the kernel's copy of the bytes, which
// no program can spare. So "ratio" compares the work of the programs alone: the muxer's into a null
// sink with the command's outside the kernel; "ratio_all" compares everything.
static void beside_ffmpeg_copy(benchmark::State &state)
{
    const std::string copy = "ffmpeg -nostdin -v fatal -y -i " + path("out.mp4") +
                             " -map 0 -c copy " + path("copy.mp4") + " 2> /dev/null";
    least work;
    least all;
    for (auto _ : state) {
        output_is_null = true;
        const recording_times null = record(path("null.mp4"), kFrames, kPictureBytes);
        output_is_null = false;
        const recording_times file = record(path("out.mp4"), kFrames, kPictureBytes);
        const children_times before = times_of_children();
        if (std::system(copy.c_str()) != 0) {
            state.SkipWithError("no ffmpeg, or it refused the file");
            return;
        }
        const children_times after = times_of_children();
        work.note(null.frames + null.close, after.user - before.user);
        all.note(file.frames + file.close, after.all - before.all);
    }
    work.show(state, "ffmpeg_copy", kNs / kFrames);
    state.counters["mux_all"] = all.mux * kNs / kFrames;
    state.counters["ffmpeg_all"] = all.other * kNs / kFrames;
    state.counters["ratio_all"] = all.mux / all.other;
}
BENCHMARK(beside_ffmpeg_copy)->Iterations(5);

static void over_many_frames(benchmark::State &state)
{
    least times;
    output_is_null = true;
    for (auto _ : state) {
        const recording_times own = record(path("out.mp4"), kManyFrames, kPictureBytes);
        times.note(own.tenths.back(), own.tenths.front());
        state.counters["allocations"] = own.allocations;
        state.counters["writes_a_cache"] = own.writes_a_cache;
    }
    output_is_null = false;
    times.show(state, "first_tenth", 10 * kNs / kManyFrames);
}
BENCHMARK(over_many_frames)->Iterations(5);

// Copies as many bytes as the sample tables have through a buffer like the close's: from memory, or
// from a file that goes away, as the scratch files do.
static double copy_tables(uint64_t bytes, bool from_file)
{
    static const std::vector<uint8_t> tables(32u << 20, 0x5A);
    static std::vector<uint8_t> buffer(kCloseBytes);
    FILE *file = std::fopen(path("plain").c_str(), "wb");
    FILE *scratch = std::fopen(path("tables").c_str(), "wb+");
    std::setvbuf(file, nullptr, _IONBF, 0);
    std::setvbuf(scratch, nullptr, _IONBF, 0);
    if (from_file && std::fwrite(tables.data(), 1, bytes, scratch) != bytes) {
        give_up("no room in memory");
    }
    std::rewind(scratch);
    const double start = cpu_seconds();
    for (uint64_t at = 0; at < bytes; at += buffer.size()) {
        const size_t part = std::min<size_t>(buffer.size(), bytes - at);
        if (!from_file) {
            std::memcpy(buffer.data(), tables.data() + at, part);
        } else if (std::fread(buffer.data(), 1, part, scratch) != part) {
            give_up("the tables are gone");
        }
        std::fwrite(buffer.data(), 1, part, file);
    }
    std::fclose(file);
    std::fclose(scratch);
    std::remove(path("tables").c_str());
    const double seconds = cpu_seconds() - start;
    std::remove(path("plain").c_str());
    return seconds;
}

// range: thousands of frames, bytes of a picture
static void close_recording(benchmark::State &state)
{
    const uint32_t frames = static_cast<uint32_t>(state.range(0)) * 1000;
    least times;
    least from_files;
    double longest = 0;
    for (auto _ : state) {
        const recording_times own =
            record(path("out.mp4"), frames, static_cast<uint32_t>(state.range(1)));
        longest = std::max(longest, own.close_wall);
        std::remove(path("out.mp4").c_str());
        times.note(own.close, copy_tables(scratch_bytes, false));
        from_files.note(own.close, copy_tables(scratch_bytes, true));
    }
    times.show(state, "copy_ms", 1e3);
    state.counters["ratio_from_files"] = from_files.mux / from_files.other;
    state.counters["longest_ms"] = longest * 1e3;
    state.counters["MB"] = static_cast<double>(output_bytes) / 1e6;
    state.counters["tables_MB"] = static_cast<double>(scratch_bytes) / 1e6;
}
BENCHMARK(close_recording)
    ->ArgNames({"thousands", "picture"})
    ->Args({1000, 100})
    ->Args({2000, 100})
    ->Args({2000, 1770})
    ->Iterations(5);

int main(int argc, char **argv)
{
    av_mux_silence();
    benchmark::Initialize(&argc, argv);
    char name[] = "/dev/shm/bench_mp4mux.XXXXXX";
    folder = mkdtemp(name) != nullptr ? name : "";
    if (folder.empty()) {
        give_up("no folder in memory");
    }
    (void)record(path("out.mp4"), kFrames / 10, kPictureBytes);
    if (av_count_frames(path("out.mp4").c_str()) != kFrames / 10) {
        give_up("the file does not give its frames back");
    }
    benchmark::RunSpecifiedBenchmarks();
    std::remove(path("out.mp4").c_str());
    std::remove(path("copy.mp4").c_str());
    rmdir(name);
    if (broken_promise != nullptr) {
        give_up(broken_promise);
    }
    return 0;
}

// The muxer compared with plain copies of the same bytes, with libavformat and with a remuxing
// command: CPU time per frame and of the close. Files are in /dev/shm, in memory.
//
// Every iteration runs both sides in turn, so that "ratio" (the muxer's time over the other's, or
// the last frames' over the first) is of one machine at one moment.
#include "bench/av_mux.h"
#include "bench/mux_recording.h"
#include "bench/process_usage.h"
#include "bench/programme_frames.h"
#include "component/tdmbrec_interface.h"
#include "mp4mux/mp4_mux.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

static constexpr uint32_t kFrames = 200000;
static constexpr uint32_t kManyFrames = 2000000;
static constexpr double kNs = 1e9;

static std::string folder; // of all files

// The last promise that a recording broke, or null. All figures are shown before it ends the
// program.
static const char *broken_promise;

static std::string path(const char *name)
{
    return folder + "/" + name;
}

static recording_figures record_frames(sink kind, uint32_t frames, uint32_t picture_bytes)
{
    const recording_figures figures = record(path("out.mp4"), kind, frames, picture_bytes);
    if (figures.broken_promise != nullptr) {
        broken_promise = figures.broken_promise;
    }
    return figures;
}

// The least of several times: the one that other programs disturbed least.
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
    const double start = process_cpu_seconds();
    for (uint32_t i = 0; i < frames; i++) {
        const mp4_mux_putstream_t frame = source.next();
        std::fwrite(frame.m_pbyData, 1, static_cast<size_t>(frame.m_iDataSize), file);
    }
    std::fclose(file);
    return process_cpu_seconds() - start;
}

static void beside_fwrite(benchmark::State &state)
{
    least times;
    for (auto _ : state) {
        const double plain = write_frames(kFrames, kPictureBytes);
        std::remove(path("plain").c_str());
        times.note(record_frames(sink::file, kFrames, kPictureBytes).frames_cpu_seconds, plain);
        std::remove(path("out.mp4").c_str());
    }
    times.show(state, "fwrite", kNs / kFrames);
}
BENCHMARK(beside_fwrite)->Iterations(5);

static double mux_with_libavformat(bool owned)
{
    const double start = process_cpu_seconds();
    void *context = av_mux_open();
    frame_source source;
    for (uint32_t i = 0; i < kFrames && context != nullptr; i++) {
        if (!av_mux_write(context, source.next(), owned)) {
            give_up("libavformat refused a frame");
        }
    }
    const double seconds = process_cpu_seconds() - start;
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
    for (auto _ : state) {
        const double other = mux_with_libavformat(state.range(0) != 0);
        times.note(record_frames(sink::null, kFrames, kPictureBytes).frames_cpu_seconds, other);
    }
    times.show(state, "av_write_frame", kNs / kFrames);
}
BENCHMARK(beside_libavformat)->ArgName("owned")->Arg(1)->Arg(0)->Iterations(5);

// Both write a file, and most of the muxer's time is the kernel's copy of the bytes, which no
// program can avoid. "ratio" therefore leaves it out: the muxer writes into a null sink, and of the
// command only the time outside the kernel counts. "ratio_all" compares everything.
static void beside_ffmpeg_copy(benchmark::State &state)
{
    const std::string copy = "ffmpeg -nostdin -v fatal -y -i " + path("out.mp4") +
                             " -map 0 -c copy " + path("copy.mp4") + " 2> /dev/null";
    least work;
    least all;
    for (auto _ : state) {
        const recording_figures null = record_frames(sink::null, kFrames, kPictureBytes);
        const recording_figures file = record_frames(sink::file, kFrames, kPictureBytes);
        const children_usage before = usage_of_children();
        if (std::system(copy.c_str()) != 0) {
            state.SkipWithError("no ffmpeg, or it refused the file");
            return;
        }
        const children_usage after = usage_of_children();
        work.note(null.frames_cpu_seconds + null.close_cpu_seconds,
                  after.user_seconds - before.user_seconds);
        all.note(file.frames_cpu_seconds + file.close_cpu_seconds,
                 after.cpu_seconds - before.cpu_seconds);
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
    for (auto _ : state) {
        const recording_figures own = record_frames(sink::null, kManyFrames, kPictureBytes);
        times.note(own.tenths_cpu_seconds.back(), own.tenths_cpu_seconds.front());
        state.counters["allocations"] = own.allocations;
        state.counters["writes_a_cache"] = own.writes_a_cache;
    }
    times.show(state, "first_tenth", 10 * kNs / kManyFrames);
}
BENCHMARK(over_many_frames)->Iterations(5);

// Copies as many bytes as the sample tables have through a buffer like that of the close: from
// memory, or from a file that is removed afterwards, as the scratch files are.
static double copy_tables(uint64_t bytes, bool from_file)
{
    static const std::vector<uint8_t> tables(32u << 20, 0x5A);
    static std::vector<uint8_t> buffer(TDMBREC_CLOSE_MEMORY_BYTES);
    FILE *file = std::fopen(path("plain").c_str(), "wb");
    FILE *scratch = std::fopen(path("tables").c_str(), "wb+");
    std::setvbuf(file, nullptr, _IONBF, 0);
    std::setvbuf(scratch, nullptr, _IONBF, 0);
    if (from_file && std::fwrite(tables.data(), 1, bytes, scratch) != bytes) {
        give_up("no room in memory");
    }
    std::rewind(scratch);
    const double start = process_cpu_seconds();
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
    const double seconds = process_cpu_seconds() - start;
    std::remove(path("plain").c_str());
    return seconds;
}

// range: thousands of frames, bytes of a picture
static void close_recording(benchmark::State &state)
{
    const uint32_t frames = static_cast<uint32_t>(state.range(0)) * 1000;
    least times;
    least from_files;
    double longest_seconds = 0;
    recording_figures own;
    for (auto _ : state) {
        own = record_frames(sink::file, frames, static_cast<uint32_t>(state.range(1)));
        longest_seconds = std::max(longest_seconds, own.close_seconds);
        std::remove(path("out.mp4").c_str());
        times.note(own.close_cpu_seconds, copy_tables(own.scratch_bytes, false));
        from_files.note(own.close_cpu_seconds, copy_tables(own.scratch_bytes, true));
    }
    times.show(state, "copy_ms", 1e3);
    state.counters["ratio_from_files"] = from_files.mux / from_files.other;
    state.counters["longest_ms"] = longest_seconds * 1e3;
    state.counters["MB"] = static_cast<double>(own.output_bytes) / 1e6;
    state.counters["tables_MB"] = static_cast<double>(own.scratch_bytes) / 1e6;
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
    (void)record_frames(sink::file, kFrames / 10, kPictureBytes);
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

// The muxer over recordings of fixed frames, with files that only count what is written: CPU time
// per frame and multiples of real time, and the time that the close takes.
#include "mp4mux/mp4_mux.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

static constexpr uint32_t kFramesPerSecond = 30;
static constexpr uint32_t kGroup = 30; // pictures from one key frame to the next
static constexpr uint32_t kAudioMs = 1024 * 1000 / 48000;
static constexpr size_t kMaxFrameBytes = 24000;
static constexpr int32_t kCacheBytes[] = {0x100000, 0xC0000, 0x80000}; // output, video, audio
static constexpr int32_t kCloseBytes = 0x300000;

struct count_file {
    int64_t position = 0;
    int64_t size = 0;
    bool keeps = false; // a scratch file is read back
    std::vector<uint8_t> bytes;
};

static int64_t output_bytes;

static void *open_file(const char *name, const char *)
{
    count_file *file = new count_file;
    file->keeps = std::strcmp(name, "out.mp4") != 0;
    return file;
}

static size_t read_file(void *buffer, size_t, size_t count, void *handle)
{
    count_file *file = static_cast<count_file *>(handle);
    const size_t at = static_cast<size_t>(file->position);
    count = std::min(count, file->bytes.size() - std::min(at, file->bytes.size()));
    std::memcpy(buffer, file->bytes.data() + at, count);
    file->position += static_cast<int64_t>(count);
    return count;
}

static size_t write_file(const void *buffer, size_t, size_t count, void *handle)
{
    count_file *file = static_cast<count_file *>(handle);
    const size_t at = static_cast<size_t>(file->position);
    if (file->keeps) {
        file->bytes.resize(std::max(file->bytes.size(), at + count));
        std::memcpy(file->bytes.data() + at, buffer, count);
    }
    file->position += static_cast<int64_t>(count);
    file->size = std::max(file->size, file->position);
    return count;
}

static int seek_file64(void *handle, int64_t offset, int whence)
{
    count_file *file = static_cast<count_file *>(handle);
    file->position = offset + (whence == SEEK_END ? file->size : 0);
    return 0;
}

static int seek_file(void *handle, int32_t offset, int whence)
{
    return seek_file64(handle, offset, whence);
}

static int64_t tell_file64(void *handle)
{
    return static_cast<count_file *>(handle)->position;
}

static int32_t tell_file(void *handle)
{
    return static_cast<int32_t>(tell_file64(handle));
}

static int close_file(void *handle)
{
    count_file *file = static_cast<count_file *>(handle);
    output_bytes = file->keeps ? output_bytes : file->size;
    delete file;
    return 0;
}

static int remove_file(const char *)
{
    return 0;
}

static void *open_recording(std::vector<uint8_t> *cache)
{
    static char name[] = "out.mp4";
    static const uint8_t sets[] = {0,    0,    0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x05,
                                   0x07, 0xE8, 0, 0, 0,    1,    0x68, 0xCE, 0x3C, 0x80};
    static const uint8_t config[] = {0x11, 0x90};
    mp4_mux_init_t init = {};
    init.m_pfnMalloc = std::malloc;
    init.m_pfnFree = std::free;
    init.m_pfnMemcpy = std::memcpy;
    init.m_pfnMemset = std::memset;
    init.m_pfnFopen = open_file;
    init.m_pfnFread = read_file;
    init.m_pfnFseek = seek_file;
    init.m_pfnFtell = tell_file;
    init.m_pfnFclose = close_file;
    init.m_pfnFwrite = write_file;
    init.m_pfnRemove = remove_file;
    init.m_pfnFseek64 = seek_file64;
    init.m_pfnFtell64 = tell_file64;
    init.m_pOutput = name;
    init.m_uiStreamFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO;
    init.m_pCacheMem = cache->data();
    init.m_iCacheSize = kCacheBytes[0];
    init.m_iVideoCacheSize = kCacheBytes[1];
    init.m_iAudioCacheSize = kCacheBytes[2];
    mp4_mux_input_t input = {.m_iYear = 2009, .m_iMonth = 9, .m_iDay = 5};
    input.m_iVideoWidth = 320;
    input.m_iVideoHeight = 240;
    std::memcpy(&input.m_uiVideoFourCC, "avc1", 4);
    input.m_pbyVideoPrivate = sets;
    input.m_iVideoPrivateSize = sizeof(sets);
    input.m_iAudioSampleRate = 48000;
    input.m_iAudioChannels = 2;
    input.m_iAudioCodec = 0xAAC0;
    input.m_pbyAudioPrivate = config;
    input.m_iAudioPrivateSize = sizeof(config);
    void *handle = nullptr;
    return QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input) == 0 ? handle : nullptr;
}

// Pictures of 1 to 5 KB, key frames of 24 KB, sound of 340 bytes: about 1 Mbit/s.
// returns  number of frames, 0 after a failure
static uint64_t put_frames(void **handle, uint32_t seconds, int64_t *estimate)
{
    static const std::vector<uint8_t> payload(kMaxFrameBytes, 0x5A);
    uint64_t frames = 0;
    uint32_t audio_ms = 0;
    for (uint32_t i = 0; i < seconds * kFramesPerSecond; i++) {
        mp4_mux_putstream_t video = {.m_pbyData = payload.data(), .m_iType = MUX_TYPE_VIDEO};
        video.m_uiTimeStamp = static_cast<uint32_t>(uint64_t{i} * 1000 / kFramesPerSecond);
        video.m_uiFlags = i % kGroup == 0 ? MUX_FRAME_KEY : 0;
        video.m_iDataSize =
            i % kGroup == 0 ? int32_t{kMaxFrameBytes} : static_cast<int32_t>(1000 + i * 977 % 4000);
        if (QVR_MP4_MUX(MUX_PUTFRAME, handle, &video, estimate) != 0) {
            return 0;
        }
        frames++;
        for (; audio_ms <= video.m_uiTimeStamp; audio_ms += kAudioMs, frames++) {
            mp4_mux_putstream_t audio = {payload.data(), 340, MUX_TYPE_AUDIO, audio_ms, 0, 0};
            if (QVR_MP4_MUX(MUX_PUTFRAME, handle, &audio, estimate) != 0) {
                return 0;
            }
        }
    }
    return frames;
}

// out      close_seconds: what the close took
// returns  number of frames, 0 after a failure or when the file has not the size it was to have
static uint64_t record(uint32_t seconds, double *close_seconds)
{
    static std::vector<uint8_t> cache(kCacheBytes[0] + kCacheBytes[1] + kCacheBytes[2]);
    static std::vector<uint8_t> close_memory(kCloseBytes);
    int64_t estimate = 0;
    void *handle = open_recording(&cache);
    const uint64_t frames = handle != nullptr ? put_frames(&handle, seconds, &estimate) : 0;
    mp4_mux_closemem_t lent = {close_memory.data(), kCloseBytes};
    const auto start = std::chrono::steady_clock::now();
    const int32_t closed = QVR_MP4_MUX(MUX_CLOSE, &handle, &lent, nullptr);
    *close_seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return closed == 0 && std::abs(estimate - output_bytes) < 64 ? frames : 0;
}

static void record_programme(benchmark::State &state)
{
    const uint32_t seconds = static_cast<uint32_t>(state.range(0));
    uint64_t frames = 0;
    double close_total = 0;
    for (auto _ : state) {
        double close_seconds = 0;
        frames += record(seconds, &close_seconds);
        close_total += close_seconds;
    }
    using benchmark::Counter;
    state.counters["per_frame"] =
        Counter(static_cast<double>(frames), Counter::kIsRate | Counter::kInvert);
    state.counters["x_real_time"] = Counter(seconds, Counter::kIsIterationInvariantRate);
    state.counters["close"] = Counter(close_total, Counter::kAvgIterations);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * output_bytes);
}
BENCHMARK(record_programme)->ArgName("seconds")->Arg(60)->Arg(3600)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    double close_seconds = 0;
    if (record(60, &close_seconds) == 0) {
        std::fprintf(stderr, "bench_mp4mux: the file is not the expected one\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

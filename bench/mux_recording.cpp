#include "bench/mux_recording.h"

#include "bench/process_usage.h"
#include "bench/programme_frames.h"
#include "component/tdmbrec_interface.h"
#include "mp4mux/mp4_mux.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

static constexpr double kEstimateError = 64; // bytes

// How the callbacks were used.
static uint64_t output_writes, output_bytes, allocations, scratch_bytes;
static bool output_is_null;

struct file_handle {
    FILE *stream = nullptr;
    bool is_output = false;
    int64_t position = 0;
    int64_t size = 0;
};

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

static void *open_recording(std::string &output, const std::string &folder,
                            std::vector<uint8_t> &cache)
{
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
    init.m_pCacheMem = cache.data();
    init.m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init.m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init.m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    init.m_pszTempDir = folder.c_str();
    mp4_mux_input_t input = {.m_iYear = 2009, .m_iMonth = 9, .m_iDay = 5};
    input.m_iVideoWidth = TDMBREC_PICTURE_WIDTH;
    input.m_iVideoHeight = TDMBREC_PICTURE_HEIGHT;
    std::memcpy(&input.m_uiVideoFourCC, "avc1", 4);
    input.m_pbyVideoPrivate = kAvcRecord;
    input.m_iVideoPrivateSize = sizeof(kAvcRecord);
    input.m_iAudioSampleRate = 48000;
    input.m_iAudioChannels = 2;
    input.m_iAudioCodec = MUX_AUDIO_AAC;
    input.m_pbyAudioPrivate = kAudioConfig;
    input.m_iAudioPrivateSize = sizeof(kAudioConfig);
    void *handle = nullptr;
    return QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input) == 0 ? handle : nullptr;
}

void give_up(const char *why)
{
    std::fprintf(stderr, "bench_mp4mux: %s\n", why);
    std::exit(1);
}

static double wall_seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// returns: the size that the muxer expects of the finished file
static int64_t put_frames(void **handle, frame_source &source, uint32_t frames,
                          recording_figures &figures)
{
    int64_t estimate_bytes = 0;
    for (double &tenth_cpu_seconds : figures.tenths_cpu_seconds) {
        const double cpu_start = process_cpu_seconds();
        for (uint32_t i = 0; i < frames / 10; i++) {
            mp4_mux_putstream_t frame = source.next();
            if (QVR_MP4_MUX(MUX_PUTFRAME, handle, &frame, &estimate_bytes) != 0) {
                give_up("a frame was refused");
            }
        }
        tenth_cpu_seconds = process_cpu_seconds() - cpu_start;
        figures.frames_cpu_seconds += tenth_cpu_seconds;
    }
    return estimate_bytes;
}

static void close_recording(void **handle, recording_figures &figures)
{
    static std::vector<uint8_t> memory(TDMBREC_CLOSE_MEMORY_BYTES);
    mp4_mux_closemem_t lent = {memory.data(), TDMBREC_CLOSE_MEMORY_BYTES};
    const double cpu_start = process_cpu_seconds();
    const double wall_start = wall_seconds();
    if (QVR_MP4_MUX(MUX_CLOSE, handle, &lent, nullptr) != 0) {
        give_up("the close failed");
    }
    figures.close_cpu_seconds = process_cpu_seconds() - cpu_start;
    figures.close_seconds = wall_seconds() - wall_start;
}

recording_figures record(std::string output, sink kind, uint32_t frames, uint32_t picture_bytes)
{
    static std::vector<uint8_t> cache(TDMBREC_OUTPUT_CACHE_BYTES + TDMBREC_VIDEO_CACHE_BYTES +
                                      TDMBREC_AUDIO_CACHE_BYTES);
    const std::string folder = std::filesystem::path(output).parent_path().string();
    recording_figures figures;
    frame_source source = {.picture_bytes = picture_bytes};
    output_writes = scratch_bytes = 0;
    output_is_null = kind == sink::null;
    void *handle = open_recording(output, folder, cache);
    const uint64_t allocations_at_open = allocations;
    const int64_t estimate_bytes = put_frames(&handle, source, frames, figures);
    const uint64_t writes = output_writes;
    close_recording(&handle, figures);

    figures.allocations = static_cast<double>(allocations - allocations_at_open);
    figures.writes_a_cache =
        static_cast<double>(writes) /
        std::ceil(static_cast<double>(source.media_bytes) / double{TDMBREC_OUTPUT_CACHE_BYTES});
    figures.output_bytes = output_bytes;
    figures.scratch_bytes = scratch_bytes;
    if (std::abs(static_cast<double>(estimate_bytes) - static_cast<double>(output_bytes)) >
        kEstimateError) {
        give_up("the file is not the expected one");
    }
    if (figures.allocations != 0) {
        figures.broken_promise = "a frame allocated";
    } else if (writes > source.media_bytes / TDMBREC_OUTPUT_CACHE_BYTES + 1) {
        figures.broken_promise = "a cache was written more than once";
    }
    return figures;
}

#include "tests/recovery/crash_images/disk_trace.h"

#include "mp4mux/mp4_mux.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <unistd.h>
#include <utility>

// Visible, because a sanitizer's runtime library refers to some of them.
#define WRAPPED extern "C" __attribute__((visibility("default")))

extern "C" {
int32_t __real_QVR_MP4_MUX(int32_t, void **, void *, void *);
FILE *__real_fopen(const char *, const char *);
size_t __real_fwrite(const void *, size_t, size_t, FILE *);
int __real_remove(const char *);
int __real_open(const char *, int, ...);
ssize_t __real_write(int, const void *, size_t);
int __real_fsync(int);
int __real_fdatasync(int);
int __real_unlink(const char *);
}

// The component writes and syncs on threads of its own. Never destroyed: a thread of it may still
// end when the program does.
static std::mutex &lock = *new std::mutex;
static std::condition_variable &changed = *new std::condition_variable;
static std::string &traced_folder = *new std::string;
static disk_trace &trace = *new disk_trace;
static std::map<int, size_t> &file_of_descriptor = *new std::map<int, size_t>;

static bool is_traced(const char *name)
{
    return !traced_folder.empty() &&
           std::strncmp(name, traced_folder.data(), traced_folder.size()) == 0;
}

static size_t index_of(const char *name)
{
    const auto found = std::find(trace.names.begin(), trace.names.end(), name);
    const size_t index = static_cast<size_t>(found - trace.names.begin());
    if (found == trace.names.end()) {
        trace.names.emplace_back(name);
    }
    return index;
}

static void note_open(const char *name, int descriptor, bool is_created)
{
    const std::lock_guard guard(lock);
    if (descriptor < 0 || !is_traced(name)) {
        file_of_descriptor.erase(descriptor); // of a file that was closed
        return;
    }
    const size_t file = index_of(name);
    file_of_descriptor[descriptor] = file;
    if (is_created) {
        trace.events.push_back({.call = disk_call::create, .file = file});
    }
}

static void note_write(int descriptor, int64_t offset, const void *bytes, int64_t count)
{
    const std::lock_guard guard(lock);
    const auto found = file_of_descriptor.find(descriptor);
    if (found != file_of_descriptor.end() && count > 0) {
        const uint8_t *const from = static_cast<const uint8_t *>(bytes);
        trace.events.push_back({.call = disk_call::write,
                                .file = found->second,
                                .offset = offset,
                                .bytes = Bytes(from, from + count)});
    }
}

static void note_removal(const char *name)
{
    const std::lock_guard guard(lock);
    if (is_traced(name)) {
        trace.events.push_back({.call = disk_call::remove, .file = index_of(name)});
    }
}

static int note_sync(int descriptor, int (*real_sync)(int))
{
    const std::lock_guard guard(lock);
    const auto found = file_of_descriptor.find(descriptor);
    if (found == file_of_descriptor.end()) {
        return real_sync(descriptor);
    }
    trace.events.push_back(
        {.call = disk_call::sync, .file = found->second, .begun_at = trace.events.size()});
    changed.notify_all();
    return 0;
}

void begin_disk_trace(const std::string &folder)
{
    const std::lock_guard guard(lock);
    traced_folder = folder;
    trace = {};
}

static bool is_synced(const std::string &name)
{
    size_t covered = 0;
    size_t written = 0;
    bool is_folder_synced = false;
    for (size_t i = 0; i < trace.events.size(); i++) {
        const disk_event &event = trace.events[i];
        is_folder_synced = is_folder_synced || (event.call == disk_call::sync &&
                                                trace.names[event.file] == traced_folder);
        if (trace.names[event.file] == name) {
            covered = event.call == disk_call::sync ? std::max(covered, event.begun_at) : covered;
            written = event.call == disk_call::write ? i + 1 : written;
        }
    }
    return is_folder_synced && covered >= written;
}

bool wait_until_synced(const std::string &name)
{
    std::unique_lock guard(lock);
    return changed.wait_for(guard, std::chrono::minutes(1), [&] { return is_synced(name); });
}

disk_trace end_disk_trace()
{
    const std::lock_guard guard(lock);
    traced_folder.clear();
    file_of_descriptor.clear();
    return std::exchange(trace, {});
}

// The fixture resets the calls that its own unit wraps.
void reset_wrapped_calls()
{
}

static traced_mux *traced; // changes only between recordings
static bool has_tiny_caches;

void trace_mux(traced_mux *mux, bool use_tiny_caches)
{
    traced = mux;
    has_tiny_caches = use_tiny_caches;
}

static void note_settings(mp4_mux_init_t *init, const mp4_mux_input_t *input)
{
    const uint8_t *const video = input->m_pbyVideoPrivate;
    const uint8_t *const audio = input->m_pbyAudioPrivate;
    traced->settings = {.stream_flags = init->m_uiStreamFlags,
                        .options = init->m_uiOptions,
                        .input = *input,
                        .video_configuration = Bytes(video, video + input->m_iVideoPrivateSize),
                        .audio_configuration = Bytes(audio, audio + input->m_iAudioPrivateSize)};
    if (has_tiny_caches) { // the video tables are cut after a record of one kind, others between
        init->m_iCacheSize = 700;
        init->m_iVideoCacheSize = 150;
        init->m_iAudioCacheSize = 90;
    }
}

static void note_frame(const mp4_mux_putstream_t *frame)
{
    static constexpr int64_t kFirstFrame = 36;
    std::vector<muxed_frame> *const frames = &traced->frames;
    const int64_t offset =
        frames->empty() ? kFirstFrame
                        : frames->back().offset + static_cast<int64_t>(frames->back().bytes.size());
    frames->push_back({.type = frame->m_iType,
                       .flags = frame->m_uiFlags,
                       .time_ms = frame->m_uiTimeStamp,
                       .offset = offset,
                       .bytes = Bytes(frame->m_pbyData, frame->m_pbyData + frame->m_iDataSize)});
}

WRAPPED int32_t __wrap_QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2)
{
    if (op == MUX_OPEN && traced != nullptr) {
        note_settings(static_cast<mp4_mux_init_t *>(param1),
                      static_cast<const mp4_mux_input_t *>(param2));
    } else if (op == MUX_PUTFRAME && traced != nullptr) {
        note_frame(static_cast<const mp4_mux_putstream_t *>(param1));
    } else if (op == MUX_CLOSE && has_tiny_caches) {
        param1 = nullptr; // no memory for the close: it writes in small parts, too
    }
    return __real_QVR_MP4_MUX(op, handle, param1, param2);
}

WRAPPED FILE *__wrap_fopen(const char *name, const char *mode)
{
    FILE *const file = __real_fopen(name, mode);
    note_open(name, file == nullptr ? -1 : fileno(file), mode[0] == 'w');
    return file;
}

WRAPPED size_t __wrap_fwrite(const void *bytes, size_t size, size_t count, FILE *file)
{
    const int64_t offset = ftell(file);
    const size_t written = __real_fwrite(bytes, size, count, file);
    note_write(fileno(file), offset, bytes, static_cast<int64_t>(written * size));
    return written;
}

WRAPPED int __wrap_remove(const char *name)
{
    const int result = __real_remove(name);
    if (result == 0) {
        note_removal(name);
    }
    return result;
}

WRAPPED int __wrap_unlink(const char *name)
{
    const int result = __real_unlink(name);
    if (result == 0) {
        note_removal(name);
    }
    return result;
}

WRAPPED int __wrap_open(const char *name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
    va_end(arguments);
    const int descriptor = __real_open(name, flags, mode);
    note_open(name, descriptor, (flags & O_CREAT) != 0);
    return descriptor;
}

WRAPPED ssize_t __wrap_write(int descriptor, const void *bytes, size_t count)
{
    const int64_t offset = lseek(descriptor, 0, SEEK_CUR);
    const ssize_t written = __real_write(descriptor, bytes, count);
    note_write(descriptor, offset, bytes, written);
    return written;
}

WRAPPED int __wrap_fsync(int descriptor)
{
    return note_sync(descriptor, __real_fsync);
}

WRAPPED int __wrap_fdatasync(int descriptor)
{
    return note_sync(descriptor, __real_fdatasync);
}

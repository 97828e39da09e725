#include "bench/slow_storage.h"

#include "platform/omx_il.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/types.h>
#include <thread>
#include <utility>

using steady = std::chrono::steady_clock;

static constexpr std::chrono::milliseconds kSyncTime(50);

static std::atomic<bool> is_counting;
static std::atomic<uint64_t> rate; // bytes per second, 0: not slow
static std::atomic<uint64_t> media_writes, media_bytes, journal_writes, journal_bytes;
static std::atomic<uint64_t> unsynced_bytes;
static std::array<std::vector<int64_t>, TDMBREC_PORT_COUNT> buffer_ns; // of the buffer thread
static std::atomic<storage_stall> stall_kind;
static std::atomic<int64_t> next_stall_ns; // 0: none is to come
static std::atomic<steady::time_point> stall_begin, stall_end;
static std::atomic<uint64_t> stalled_bytes;

void storage_begin(uint64_t bytes_per_second)
{
    rate = bytes_per_second;
    media_writes = media_bytes = journal_writes = journal_bytes = unsynced_bytes = 0;
    buffer_ns = {};
    is_counting = true;
}

void storage_stall_next(storage_stall kind, std::chrono::milliseconds time)
{
    stall_kind = kind;
    stall_begin = steady::time_point();
    next_stall_ns = std::chrono::nanoseconds(time).count();
}

static void begin_stall(storage_stall kind, uint64_t bytes)
{
    if (stall_kind == kind) {
        const std::chrono::nanoseconds time(next_stall_ns.exchange(0));
        if (time.count() > 0) {
            const steady::time_point now = steady::now();
            stalled_bytes = bytes;
            stall_end = now + time;
            stall_begin = now;
        }
    }
}

static std::chrono::nanoseconds time_of_bytes(uint64_t bytes)
{
    const uint64_t bytes_per_second = rate;
    return std::chrono::nanoseconds(bytes_per_second == 0 ? 0
                                                          : bytes * 1000000000 / bytes_per_second);
}

stalled_call storage_stalled_call()
{
    return {.begin = stall_begin, .own_time = time_of_bytes(stalled_bytes)};
}

storage_figures storage_end()
{
    is_counting = false;
    int64_t longest_ns = 0;
    for (const std::vector<int64_t> &times_ns : buffer_ns) {
        for (const int64_t time_ns : times_ns) {
            longest_ns = std::max(longest_ns, time_ns);
        }
    }
    return {.media_writes = static_cast<double>(media_writes),
            .media_bytes = static_cast<double>(media_bytes),
            .journal_writes = static_cast<double>(journal_writes),
            .journal_bytes = static_cast<double>(journal_bytes),
            .longest_buffer_ms = static_cast<double>(longest_ns) / 1e6,
            .buffer_ns = std::exchange(buffer_ns, {})};
}

template <typename Function>
static Function find_next(void *library, const char *name)
{
    void *const found = dlsym(library, name);
    if (found == nullptr) {
        std::fprintf(stderr, "slow_storage: %s: %s\n", name, dlerror());
        std::exit(1);
    }
    return reinterpret_cast<Function>(found);
}

static void note_write(std::atomic<uint64_t> &writes, std::atomic<uint64_t> &bytes, uint64_t count)
{
    if (is_counting) {
        writes++;
        bytes += count;
        unsynced_bytes += count;
        if (stall_kind == kStallOfAll) {
            std::this_thread::sleep_until(stall_end.load());
        }
        std::this_thread::sleep_for(time_of_bytes(count));
    }
}

extern "C" {

__attribute__((visibility("default"))) size_t fwrite(const void *buffer, size_t size, size_t count,
                                                     FILE *file)
{
    static const auto next = find_next<decltype(&fwrite)>(RTLD_NEXT, "fwrite");
    begin_stall(kStallOfAll, size * count);
    note_write(media_writes, media_bytes, size * count);
    return next(buffer, size, count, file);
}

__attribute__((visibility("default"))) ssize_t write(int file, const void *buffer, size_t count)
{
    static const auto next = find_next<decltype(&write)>(RTLD_NEXT, "write");
    note_write(journal_writes, journal_bytes, count);
    return next(file, buffer, count);
}

__attribute__((visibility("default"))) int fdatasync(int file)
{
    static const auto next = find_next<decltype(&fdatasync)>(RTLD_NEXT, "fdatasync");
    if (is_counting && rate > 0) {
        std::this_thread::sleep_for(time_of_bytes(unsynced_bytes.exchange(0)) + kSyncTime);
    }
    begin_stall(kStallOfSyncs, 0);
    std::this_thread::sleep_until(stall_end.load());
    return next(file);
}

__attribute__((visibility("default"))) void
omx_tdmbrec_component_BufferMgmtCallback(OMX_COMPONENTTYPE *component, OMX_BUFFERHEADERTYPE *buffer)
{
    static const auto next = [] {
        void *const library = dlopen("libOMX.QVR.tdmbrec.so", RTLD_NOW | RTLD_NOLOAD);
        return find_next<decltype(&omx_tdmbrec_component_BufferMgmtCallback)>(
            library, "omx_tdmbrec_component_BufferMgmtCallback");
    }();
    const uint32_t port = buffer->nInputPortIndex;
    const steady::time_point begin = steady::now();
    next(component, buffer);
    const std::chrono::nanoseconds time = steady::now() - begin;
    if (is_counting) {
        buffer_ns[port].push_back(time.count());
    }
}

} // extern "C"

#include "bench/slow_storage.h"

#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/types.h>
#include <thread>

using steady = std::chrono::steady_clock;

static constexpr std::chrono::milliseconds kSyncTime(50);

static std::atomic<bool> is_counting;
static std::atomic<uint64_t> rate; // bytes per second, 0: not slow
static std::atomic<uint64_t> media_writes, media_bytes, journal_writes, journal_bytes;
static std::atomic<uint64_t> unsynced_bytes;
static std::atomic<int64_t> longest_buffer_ns;
static std::atomic<storage_stall> stall_kind;
static std::atomic<int64_t> next_stall_ns; // 0: none is to come
static std::atomic<steady::time_point> stall_end;

void storage_begin(uint64_t bytes_per_second)
{
    rate = bytes_per_second;
    media_writes = media_bytes = journal_writes = journal_bytes = unsynced_bytes = 0;
    longest_buffer_ns = 0;
    is_counting = true;
}

void storage_stall_next(storage_stall kind, std::chrono::milliseconds time)
{
    stall_kind = kind;
    next_stall_ns = std::chrono::nanoseconds(time).count();
}

static void begin_stall(storage_stall kind)
{
    if (stall_kind == kind) {
        const std::chrono::nanoseconds time(next_stall_ns.exchange(0));
        if (time.count() > 0) {
            stall_end = steady::now() + time;
        }
    }
}

storage_figures storage_end()
{
    is_counting = false;
    return {.media_writes = static_cast<double>(media_writes),
            .media_bytes = static_cast<double>(media_bytes),
            .journal_writes = static_cast<double>(journal_writes),
            .journal_bytes = static_cast<double>(journal_bytes),
            .longest_buffer_ms = static_cast<double>(longest_buffer_ns) / 1e6};
}

static void sleep_for_bytes(uint64_t bytes)
{
    const uint64_t bytes_per_second = rate;
    if (is_counting && bytes_per_second > 0) {
        std::this_thread::sleep_for(
            std::chrono::nanoseconds(bytes * 1000000000 / bytes_per_second));
    }
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
        sleep_for_bytes(count);
        if (stall_kind == kStallOfAll) {
            std::this_thread::sleep_until(stall_end.load());
        }
    }
}

extern "C" {

__attribute__((visibility("default"))) size_t fwrite(const void *buffer, size_t size, size_t count,
                                                     FILE *file)
{
    static const auto next = find_next<decltype(&fwrite)>(RTLD_NEXT, "fwrite");
    begin_stall(kStallOfAll);
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
        sleep_for_bytes(unsynced_bytes.exchange(0));
        std::this_thread::sleep_for(kSyncTime);
    }
    begin_stall(kStallOfSyncs);
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
    const steady::time_point begin = steady::now();
    next(component, buffer);
    const int64_t ns = std::chrono::nanoseconds(steady::now() - begin).count();
    longest_buffer_ns = std::max(longest_buffer_ns.load(), ns); // only the buffer thread writes
}

} // extern "C"

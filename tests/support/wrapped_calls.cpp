#include "tests/support/wrapped_calls.h"

#include "mp4mux/mp4_mux.h"

#include <atomic>
#include <cerrno>
#include <mutex>
#include <pthread.h>
#include <unistd.h>

static std::atomic<int> threads_to_refuse;
static std::atomic<int32_t> put_result;
static std::atomic<int64_t> put_file_bytes;
static NotedTimes *noted_times; // changes only between recordings
static bool is_noted_instead;

void refuse_threads(int count)
{
    threads_to_refuse = count;
}

void set_put_result(int32_t result, int64_t file_bytes)
{
    put_result = result;
    put_file_bytes = file_bytes;
}

void note_times(NotedTimes *times, bool is_instead)
{
    noted_times = times;
    is_noted_instead = is_instead;
}

static std::mutex calls_lock;
static NotedCalls *noted_calls;   // under calls_lock
static FileCallHook on_file_call; // under calls_lock

void note_file_calls(NotedCalls *calls, FileCallHook hook)
{
    const std::lock_guard<std::mutex> guard(calls_lock);
    noted_calls = calls;
    on_file_call = std::move(hook);
}

// returns: whether it must fail
static bool note_call(const std::string &call)
{
    std::unique_lock<std::mutex> guard(calls_lock);
    if (noted_calls != nullptr) {
        noted_calls->push_back(call);
    }
    const FileCallHook hook = on_file_call;
    guard.unlock();
    return hook && hook(call);
}

void reset_wrapped_calls()
{
    note_file_calls(nullptr, nullptr);
    refuse_threads(0);
    set_put_result(0, 0);
    note_times(nullptr, false);
}

extern "C" int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *),
                                     void *);
extern "C" int32_t __real_QVR_MP4_MUX(int32_t, void **, void *, void *);

// Visible, because a sanitizer's runtime library refers to it.
extern "C" __attribute__((visibility("default"))) int
__wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                      void *argument)
{
    if (threads_to_refuse > 0) {
        threads_to_refuse--;
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, body, argument);
}

extern "C" int32_t __wrap_QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2)
{
    const bool is_put = op == MUX_PUTFRAME;
    if (is_put && noted_times != nullptr) {
        const auto *const frame = static_cast<const mp4_mux_putstream_t *>(param1);
        noted_times->emplace_back(frame->m_iType, frame->m_uiTimeStamp);
    }
    const int32_t result =
        is_put && is_noted_instead ? 0 : __real_QVR_MP4_MUX(op, handle, param1, param2);
    if (is_put && param2 != nullptr && put_file_bytes != 0) {
        *static_cast<int64_t *>(param2) = put_file_bytes;
    }
    if (is_put && put_result != 0) {
        usleep(1000); // so that a second writer waits for the lock, and fails too
        return put_result;
    }
    return result;
}

// FUNCTION(PARAMETERS) with ARGUMENTS, noted as TEXT; it fails with FAILURE and EIO.
#define WRAP_FILE_CALL(RESULT, FAILURE, FUNCTION, PARAMETERS, ARGUMENTS, TEXT)                     \
    extern "C" RESULT __real_##FUNCTION PARAMETERS;                                                \
    extern "C" RESULT __wrap_##FUNCTION PARAMETERS                                                 \
    {                                                                                              \
        if (note_call(TEXT)) {                                                                     \
            errno = EIO;                                                                           \
            return FAILURE;                                                                        \
        }                                                                                          \
        return __real_##FUNCTION ARGUMENTS;                                                        \
    }

WRAP_FILE_CALL(int, -1, open, (const char *name, int flags, mode_t mode), (name, flags, mode),
               std::string("open ") + name)
WRAP_FILE_CALL(ssize_t, -1, write, (int file, const void *bytes, size_t count),
               (file, bytes, count), "write " + std::to_string(count))
WRAP_FILE_CALL(int, -1, fdatasync, (int file), (file), "fdatasync")
WRAP_FILE_CALL(int, -1, fsync, (int file), (file), "fsync")
WRAP_FILE_CALL(int, -1, unlink, (const char *name), (name), std::string("unlink ") + name)
WRAP_FILE_CALL(void *, nullptr, QVR_FILE_fopen, (const char *name, const char *mode), (name, mode),
               std::string("fopen ") + name)
WRAP_FILE_CALL(size_t, 0, QVR_FILE_fwrite,
               (const void *bytes, size_t size, size_t count, void *file),
               (bytes, size, count, file), "fwrite " + std::to_string(count))
WRAP_FILE_CALL(int, -1, QVR_FILE_fseek, (void *file, int32_t offset, int whence),
               (file, offset, whence), "fseek " + std::to_string(offset))
WRAP_FILE_CALL(int, -1, QVR_FILE_fclose, (void *file), (file), "fclose")

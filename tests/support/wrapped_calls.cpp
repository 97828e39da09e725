#include "tests/support/wrapped_calls.h"

#include <atomic>
#include <cerrno>
#include <pthread.h>

static std::atomic<int> threads_to_refuse;
static std::atomic<int64_t> file_estimate;
static std::vector<mp4_mux_putstream_t> *noted_frames; // set while nothing is recorded
static bool is_noted_instead;

void refuse_threads(int count)
{
    threads_to_refuse = count;
}

void set_file_estimate(int64_t bytes)
{
    file_estimate = bytes;
}

void note_frames(std::vector<mp4_mux_putstream_t> *frames, bool is_instead)
{
    noted_frames = frames;
    is_noted_instead = is_instead;
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
    if (op == MUX_PUTFRAME && noted_frames != nullptr) {
        noted_frames->push_back(*static_cast<const mp4_mux_putstream_t *>(param1));
        if (is_noted_instead) {
            return 0;
        }
    }
    const int32_t result = __real_QVR_MP4_MUX(op, handle, param1, param2);
    if (op == MUX_PUTFRAME && param2 != nullptr && file_estimate != 0) {
        *static_cast<int64_t *>(param2) = file_estimate;
    }
    return result;
}

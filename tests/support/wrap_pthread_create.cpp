// Lets a test make the component's next thread impossible to create (link with
// -Wl,--wrap=pthread_create).
#include "tests/support/wrap_pthread_create.h"

#include <atomic>
#include <cerrno>
#include <pthread.h>

static std::atomic<int> threads_to_refuse;

void refuse_threads(int count)
{
    threads_to_refuse = count;
}

extern "C" int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *),
                                     void *);

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

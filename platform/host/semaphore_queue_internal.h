// Operations on semaphores and queues that only the framework uses.
#ifndef PLATFORM_HOST_SEMAPHORE_QUEUE_INTERNAL_H
#define PLATFORM_HOST_SEMAPHORE_QUEUE_INTERNAL_H

#include "platform/semaphore_queue.h"

// Sets the count to 0.
// in: tsem: no thread waits for it
void tsem_reset(tsem_t *tsem);

// As dequeue, but the controls cannot make it fail.
[[nodiscard]] void *queue_take(queue_t *queue);

#endif // PLATFORM_HOST_SEMAPHORE_QUEUE_INTERNAL_H

// What the framework does with its semaphores and queues beside their interface.
#ifndef PLATFORM_HOST_SEMAPHORE_QUEUE_INTERNAL_H
#define PLATFORM_HOST_SEMAPHORE_QUEUE_INTERNAL_H

#include "platform/semaphore_queue.h"

// Takes every count; nobody may be waiting.
void tsem_reset(tsem_t *tsem);

// Like dequeue, which the controls can make fail; this never does.
[[nodiscard]] void *queue_take(queue_t *queue);

#endif // PLATFORM_HOST_SEMAPHORE_QUEUE_INTERNAL_H

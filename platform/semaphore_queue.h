// The base library's counting semaphores and buffer queues.
#ifndef PLATFORM_SEMAPHORE_QUEUE_H
#define PLATFORM_SEMAPHORE_QUEUE_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// A counting semaphore. The owner provides the memory.
typedef struct tsem_t {
    pthread_cond_t stCondition;
    pthread_mutex_t stMutex;
    uint32_t uiCount; // under stMutex
} tsem_t;

// Prepares the semaphore with the given count. returns 0, or an errno value.
int tsem_init(tsem_t *tsem, uint32_t count);
// Releases what tsem_init took; nobody may be waiting.
void tsem_deinit(tsem_t *tsem);
// Waits for a count above 0 and takes one.
void tsem_down(tsem_t *tsem);
// Adds one to the count and wakes one waiter.
void tsem_up(tsem_t *tsem);
// The count at this moment; only the sole consumer may rely on a count above 0.
uint32_t tsem_value(tsem_t *tsem);

#define QUEUE_CAPACITY 64 // buffers that one port can hold at the most

// A first-in first-out queue of pointers; safe between threads. The owner provides the memory.
typedef struct queue_t {
    void *apElement[QUEUE_CAPACITY];
    uint32_t uiRead;
    uint32_t uiCount;
    pthread_mutex_t stMutex;
} queue_t;

// Prepares an empty queue. returns 0, or an errno value.
int queue_init(queue_t *queue);
// Releases what queue_init took.
void queue_deinit(queue_t *queue);
// Appends a pointer. returns 0, or -1 when the queue is full.
int queue(queue_t *queue, void *element);
// Takes the oldest pointer. returns null when the queue is empty.
void *dequeue(queue_t *queue);
// The number of pointers queued at this moment.
uint32_t queue_length(queue_t *queue);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_SEMAPHORE_QUEUE_H

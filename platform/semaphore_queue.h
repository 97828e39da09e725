// The base library's counting semaphores and buffer queues.
#ifndef PLATFORM_SEMAPHORE_QUEUE_H
#define PLATFORM_SEMAPHORE_QUEUE_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// A counting semaphore.
typedef struct tsem_t {
    pthread_cond_t condition;
    pthread_mutex_t mutex;
    uint32_t count; // under mutex
} tsem_t;

// Prepares the semaphore with the given count.
// in: tsem: the caller's memory
// returns: 0, or an errno value
int tsem_init(tsem_t *tsem, uint32_t count);
// Releases what tsem_init took.
// in: tsem: no thread waits for it
void tsem_deinit(tsem_t *tsem);
// Waits for a count above 0 and subtracts one.
// thread: any
void tsem_down(tsem_t *tsem);
// Adds one to the count and wakes one waiter.
// thread: any
void tsem_up(tsem_t *tsem);
// returns: the count at this moment; only the sole consumer may rely on a count above 0
// thread: any
uint32_t tsem_value(tsem_t *tsem);

#define QUEUE_CAPACITY 64 // the most buffers of one port

// A first-in first-out queue of pointers.
typedef struct queue_t {
    void *elements[QUEUE_CAPACITY]; // this and the next two under mutex
    uint32_t read_index;
    uint32_t count;
    pthread_mutex_t mutex;
} queue_t;

// Prepares an empty queue.
// in: queue: the caller's memory
// returns: 0, or an errno value
int queue_init(queue_t *queue);
// Releases what queue_init took.
// in: queue: no thread uses it
void queue_deinit(queue_t *queue);
// Appends a pointer.
// returns: 0, or -1 when the queue is full
// thread: any
int queue(queue_t *queue, void *element);
// Takes the oldest pointer.
// returns: the pointer, or null when the queue is empty
// thread: any
void *dequeue(queue_t *queue);
// returns: the number of queued pointers at this moment
// thread: any
uint32_t queue_length(queue_t *queue);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_SEMAPHORE_QUEUE_H

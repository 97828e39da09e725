#include "platform/host/control_internal.h"
#include "platform/host/semaphore_queue_internal.h"

#include <cerrno>

int tsem_init(tsem_t *tsem, uint32_t count)
{
    if (host_call_fails(kHostCallTsemInit)) {
        return ENOMEM;
    }
    *tsem = {};
    tsem->count = count;
    const int result = pthread_mutex_init(&tsem->mutex, nullptr);
    if (result != 0) {
        return result;
    }
    const int condition_result = pthread_cond_init(&tsem->condition, nullptr);
    if (condition_result != 0) {
        pthread_mutex_destroy(&tsem->mutex);
    }
    return condition_result;
}

void tsem_deinit(tsem_t *tsem)
{
    pthread_cond_destroy(&tsem->condition);
    pthread_mutex_destroy(&tsem->mutex);
}

void tsem_down(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->mutex);
    while (tsem->count == 0) {
        pthread_cond_wait(&tsem->condition, &tsem->mutex);
    }
    tsem->count--;
    pthread_mutex_unlock(&tsem->mutex);
}

void tsem_up(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->mutex);
    tsem->count++;
    pthread_cond_signal(&tsem->condition);
    pthread_mutex_unlock(&tsem->mutex);
}

uint32_t tsem_value(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->mutex);
    const uint32_t count = tsem->count;
    pthread_mutex_unlock(&tsem->mutex);
    return count;
}

void tsem_reset(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->mutex);
    tsem->count = 0;
    pthread_mutex_unlock(&tsem->mutex);
}

int queue_init(queue_t *queue)
{
    *queue = {};
    return pthread_mutex_init(&queue->mutex, nullptr);
}

void queue_deinit(queue_t *queue)
{
    pthread_mutex_destroy(&queue->mutex);
}

int queue(queue_t *queue, void *element)
{
    if (host_call_fails(kHostCallQueue)) {
        return -1;
    }
    pthread_mutex_lock(&queue->mutex);
    const bool fits = queue->count < QUEUE_CAPACITY;
    if (fits) {
        queue->elements[(queue->read_index + queue->count) % QUEUE_CAPACITY] = element;
        queue->count++;
    }
    pthread_mutex_unlock(&queue->mutex);
    return fits ? 0 : -1;
}

void *dequeue(queue_t *queue)
{
    return host_call_fails(kHostCallDequeue) ? nullptr : queue_take(queue);
}

void *queue_take(queue_t *queue)
{
    void *element = nullptr;
    pthread_mutex_lock(&queue->mutex);
    if (queue->count != 0) {
        element = queue->elements[queue->read_index];
        queue->read_index = (queue->read_index + 1) % QUEUE_CAPACITY;
        queue->count--;
    }
    pthread_mutex_unlock(&queue->mutex);
    return element;
}

uint32_t queue_length(queue_t *queue)
{
    pthread_mutex_lock(&queue->mutex);
    const uint32_t length = queue->count;
    pthread_mutex_unlock(&queue->mutex);
    return length;
}

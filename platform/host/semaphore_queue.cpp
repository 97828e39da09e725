#include "platform/host/control_internal.h"
#include "platform/host/semaphore_queue_internal.h"

#include <cerrno>

int tsem_init(tsem_t *tsem, uint32_t count)
{
    if (host_call_fails(HOST_CALL_TSEM_INIT)) {
        return ENOMEM;
    }
    *tsem = {};
    tsem->uiCount = count;
    const int result = pthread_mutex_init(&tsem->stMutex, nullptr);
    if (result != 0) {
        return result;
    }
    const int condition_result = pthread_cond_init(&tsem->stCondition, nullptr);
    if (condition_result != 0) {
        pthread_mutex_destroy(&tsem->stMutex);
    }
    return condition_result;
}

void tsem_deinit(tsem_t *tsem)
{
    pthread_cond_destroy(&tsem->stCondition);
    pthread_mutex_destroy(&tsem->stMutex);
}

void tsem_down(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->stMutex);
    while (tsem->uiCount == 0) {
        pthread_cond_wait(&tsem->stCondition, &tsem->stMutex);
    }
    tsem->uiCount--;
    pthread_mutex_unlock(&tsem->stMutex);
}

void tsem_up(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->stMutex);
    tsem->uiCount++;
    pthread_cond_signal(&tsem->stCondition);
    pthread_mutex_unlock(&tsem->stMutex);
}

uint32_t tsem_value(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->stMutex);
    const uint32_t count = tsem->uiCount;
    pthread_mutex_unlock(&tsem->stMutex);
    return count;
}

void tsem_reset(tsem_t *tsem)
{
    pthread_mutex_lock(&tsem->stMutex);
    tsem->uiCount = 0;
    pthread_mutex_unlock(&tsem->stMutex);
}

int queue_init(queue_t *queue)
{
    *queue = {};
    return pthread_mutex_init(&queue->stMutex, nullptr);
}

void queue_deinit(queue_t *queue)
{
    pthread_mutex_destroy(&queue->stMutex);
}

int queue(queue_t *queue, void *element)
{
    if (host_call_fails(HOST_CALL_QUEUE)) {
        return -1;
    }
    pthread_mutex_lock(&queue->stMutex);
    const bool fits = queue->uiCount < QUEUE_CAPACITY;
    if (fits) {
        queue->apElement[(queue->uiRead + queue->uiCount) % QUEUE_CAPACITY] = element;
        queue->uiCount++;
    }
    pthread_mutex_unlock(&queue->stMutex);
    return fits ? 0 : -1;
}

void *dequeue(queue_t *queue)
{
    return host_call_fails(HOST_CALL_DEQUEUE) ? nullptr : queue_take(queue);
}

void *queue_take(queue_t *queue)
{
    void *element = nullptr;
    pthread_mutex_lock(&queue->stMutex);
    if (queue->uiCount != 0) {
        element = queue->apElement[queue->uiRead];
        queue->uiRead = (queue->uiRead + 1) % QUEUE_CAPACITY;
        queue->uiCount--;
    }
    pthread_mutex_unlock(&queue->stMutex);
    return element;
}

uint32_t queue_length(queue_t *queue)
{
    pthread_mutex_lock(&queue->stMutex);
    const uint32_t length = queue->uiCount;
    pthread_mutex_unlock(&queue->stMutex);
    return length;
}

#include "platform/qvr_memory.h"

#include "platform/host/control_internal.h"

#include <atomic>
#include <cstdlib>

static std::atomic<int64_t> live_allocations;

void *QVR_malloc(size_t size)
{
    if (host_call_fails(kHostCallMalloc)) {
        return nullptr;
    }
    void *memory = malloc(size);
    if (memory != nullptr) {
        live_allocations++;
    }
    return memory;
}

void *QVR_calloc(size_t count, size_t size)
{
    if (host_call_fails(kHostCallCalloc)) {
        return nullptr;
    }
    void *memory = calloc(count, size);
    if (memory != nullptr) {
        live_allocations++;
    }
    return memory;
}

void QVR_free(void *memory)
{
    if (memory == nullptr) {
        return;
    }
    live_allocations--;
    free(memory);
}

int64_t host_live_allocations(void)
{
    return live_allocations;
}

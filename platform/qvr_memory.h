// The base library's allocators, with the contracts of malloc, calloc and free.
#ifndef PLATFORM_QVR_MEMORY_H
#define PLATFORM_QVR_MEMORY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

void *QVR_malloc(size_t size);
void *QVR_calloc(size_t count, size_t size);
void QVR_free(void *memory);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_QVR_MEMORY_H

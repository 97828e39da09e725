#include "tests/support/allocation_counter.h"

#include <atomic>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define COUNTS_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define COUNTS_ALLOCATIONS 0
#else
#define COUNTS_ALLOCATIONS 1
#endif
#else
#define COUNTS_ALLOCATIONS 1
#endif

static std::atomic<uint64_t> count;

bool can_count_allocations()
{
    return COUNTS_ALLOCATIONS == 1;
}

uint64_t allocation_count()
{
    return count;
}

#if COUNTS_ALLOCATIONS
#pragma GCC visibility push(default)
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t number, size_t size);
void *__libc_realloc(void *memory, size_t size);

void *malloc(size_t size) noexcept
{
    count++;
    return __libc_malloc(size);
}

void *calloc(size_t number, size_t size) noexcept
{
    count++;
    return __libc_calloc(number, size);
}

void *realloc(void *memory, size_t size) noexcept
{
    count++;
    return __libc_realloc(memory, size);
}
}
#pragma GCC visibility pop
#endif

// Counts the allocations of every thread through the C library. Not available under a sanitizer,
// which replaces the allocator itself.
#ifndef TESTS_SUPPORT_ALLOCATION_COUNTER_H
#define TESTS_SUPPORT_ALLOCATION_COUNTER_H

#include <cstdint>

bool can_count_allocations();
// Calls of malloc, calloc, realloc and their like since the program began.
uint64_t allocation_count();

#endif // TESTS_SUPPORT_ALLOCATION_COUNTER_H

// Counts the allocations of every thread through the C library. A sanitizer replaces the allocator,
// so that nothing is counted.
#ifndef TESTS_SUPPORT_ALLOCATION_COUNTER_H
#define TESTS_SUPPORT_ALLOCATION_COUNTER_H

#include <cstdint>

bool can_count_allocations();
// returns: the calls of malloc, calloc and realloc since the program began
uint64_t allocation_count();

#endif // TESTS_SUPPORT_ALLOCATION_COUNTER_H

// What this process, its threads and its children use of the machine.
#ifndef BENCH_PROCESS_USAGE_H
#define BENCH_PROCESS_USAGE_H

#include <cstdint>

double process_cpu_seconds();
// CPU time of all threads but the calling one.
double other_threads_cpu_seconds();

struct children_usage {
    double user_seconds = 0;
    double cpu_seconds = 0;
};

// CPU time of the child processes that have ended.
children_usage usage_of_children();

double resident_kib();

// How often the threads other than the main one were suspended, by waiting or by the scheduler.
int64_t other_threads_switches();

// Limits the calling thread, and the threads that it starts, to the first `count` cores. Where the
// system refuses, any core is used.
void use_cores(int64_t count);

#endif // BENCH_PROCESS_USAGE_H

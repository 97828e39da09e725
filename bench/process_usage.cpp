#include "bench/process_usage.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

static double cpu_seconds(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double process_cpu_seconds()
{
    return cpu_seconds(CLOCK_PROCESS_CPUTIME_ID);
}

double other_threads_cpu_seconds()
{
    return cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
}

static double seconds_of(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

children_usage usage_of_children()
{
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    return {.user_seconds = seconds_of(usage.ru_utime),
            .cpu_seconds = seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime)};
}

double resident_kib()
{
    std::ifstream statm("/proc/self/statm");
    double pages = 0;
    statm >> pages >> pages; // the second number
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

int64_t other_threads_switches()
{
    int64_t switches = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid())) {
            continue;
        }
        std::ifstream status(task.path() / "status");
        for (std::string word; status >> word;) {
            if (word.ends_with("ctxt_switches:")) {
                int64_t count = 0;
                status >> count;
                switches += count;
            }
        }
    }
    return switches;
}

void use_cores(int64_t count)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    for (int64_t core = 0; core < count; core++) {
        CPU_SET(static_cast<size_t>(core), &cores);
    }
    (void)sched_setaffinity(0, sizeof(cores), &cores);
}

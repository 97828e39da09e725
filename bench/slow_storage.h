// A storage that can be made slow or stalled, under the component of this program: the program's
// own fwrite, write and fdatasync take the place of the C library's (link with
// -Wl,--export-dynamic-symbol=NAME), and its own buffer callback, which notes the time of each
// call, that of the component's.
//
// Slow means: fwrite and write return after the time that their bytes take at the given rate, as
// without any cache in the system. fdatasync returns after the time that all bytes since the last
// one take, and 50 ms more. The thread that calls sleeps meanwhile.
//
// Stalled means: no call returns before the end of the stall; what is slow begins after it.
#ifndef BENCH_SLOW_STORAGE_H
#define BENCH_SLOW_STORAGE_H

#include "component/tdmbrec_interface.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

inline constexpr int64_t kSlowBytesPerSecond = 10000000;

struct storage_figures {
    double media_writes;
    double media_bytes;
    double journal_writes;
    double journal_bytes;
    double longest_buffer_ms; // that the buffer thread spent in one buffer
    // What the buffer thread spent in each buffer of a port, in the order handled.
    std::array<std::vector<int64_t>, TDMBREC_PORT_COUNT> buffer_ns;
};

// Begins to count.
// in: bytes_per_second: the rate; 0 for the rate of the memory file system
void storage_begin(uint64_t bytes_per_second);

enum storage_stall {
    kStallOfAll,  // of fwrite, write and fdatasync; begins with an fwrite
    kStallOfSyncs // of fdatasync: the system's cache takes what is written
};

// Stalls the storage for this long, from the next call with which such a stall begins.
void storage_stall_next(storage_stall kind, std::chrono::milliseconds time);

// The call with which the last stall began.
struct stalled_call {
    std::chrono::steady_clock::time_point begin; // the clock's epoch: there was no stall
    std::chrono::nanoseconds own_time;           // what its bytes take without the stall
};
stalled_call storage_stalled_call();

// returns: what was counted since the begin
storage_figures storage_end();

#endif // BENCH_SLOW_STORAGE_H

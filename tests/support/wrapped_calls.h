// Calls of the component that a test can bend (link with -Wl,--wrap=pthread_create and
// -Wl,--wrap=QVR_MP4_MUX).
#ifndef TESTS_SUPPORT_WRAPPED_CALLS_H
#define TESTS_SUPPORT_WRAPPED_CALLS_H

#include <cstdint>
#include <utility>
#include <vector>

// The next `count` threads that the component wants to create fail with EAGAIN.
void refuse_threads(int count);

// Puts the result of every MUX_PUTFRAME and the muxer's estimate of the finished file in place of
// its own (0: leaves them).
void set_put_result(int32_t result, int64_t file_bytes);

// Every frame that the muxer is given is noted with its kind and time (ms; null: nowhere); with
// is_instead the muxer does not get it.
using NotedTimes = std::vector<std::pair<int, uint32_t>>;
void note_times(NotedTimes *times, bool is_instead);

// Undoes all of the above.
void reset_wrapped_calls();

#endif // TESTS_SUPPORT_WRAPPED_CALLS_H

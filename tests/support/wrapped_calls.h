// Calls of the component that a test can bend (link with -Wl,--wrap=pthread_create and
// -Wl,--wrap=QVR_MP4_MUX).
#ifndef TESTS_SUPPORT_WRAPPED_CALLS_H
#define TESTS_SUPPORT_WRAPPED_CALLS_H

#include <cstdint>

// The next `count` threads that the component wants to create fail with EAGAIN.
void refuse_threads(int count);

// The muxer reports this size of the finished file; 0: its own estimate.
void set_file_estimate(int64_t bytes);

#endif

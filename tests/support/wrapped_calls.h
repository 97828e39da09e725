// Calls of the component that a test can bend (link with -Wl,--wrap=pthread_create and
// -Wl,--wrap=QVR_MP4_MUX).
#ifndef TESTS_SUPPORT_WRAPPED_CALLS_H
#define TESTS_SUPPORT_WRAPPED_CALLS_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>
#include <vector>

// The next `count` threads that the component wants to create fail with EAGAIN.
void refuse_threads(int count);

// The muxer reports this size of the finished file; 0: its own estimate.
void set_file_estimate(int64_t bytes);

// Every frame that the muxer is given is noted in the list, its data apart (null: none); with
// is_instead the muxer does not get it.
void note_frames(std::vector<mp4_mux_putstream_t> *frames, bool is_instead);

#endif

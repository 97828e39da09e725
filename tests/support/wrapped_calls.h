// Calls of the component whose results a test can change or see (link with -Wl,--wrap= for each
// function that wrapped_calls.cpp wraps).
#ifndef TESTS_SUPPORT_WRAPPED_CALLS_H
#define TESTS_SUPPORT_WRAPPED_CALLS_H

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// Makes the next `count` calls of pthread_create fail with EAGAIN.
void refuse_threads(int count);

// Replaces the result of every MUX_PUTFRAME and the muxer's estimate of the finished file; 0 leaves
// them.
void set_put_result(int32_t result, int64_t file_bytes);

// Notes the kind and time (ms) of every frame for the muxer; with is_instead the muxer does not get
// it.
// in: times may be null: notes nothing
using NotedTimes = std::vector<std::pair<int, uint32_t>>;
void note_times(NotedTimes *times, bool is_instead);

// Notes every call that the component makes of its files: its name and its bytes or file name. The
// hook, which may be null, is called before each and makes it fail when it returns true.
// thread: any that records
using NotedCalls = std::vector<std::string>;
using FileCallHook = std::function<bool(const std::string &)>;
void note_file_calls(NotedCalls *calls, FileCallHook hook);

// Undoes all of the above.
void reset_wrapped_calls();

#endif // TESTS_SUPPORT_WRAPPED_CALLS_H

// Controls the Linux stand-in of the platform: sets what the device would set, and makes its calls
// fail or report given figures. For the tests and the client; the component never includes it.
#ifndef PLATFORM_HOST_HOST_CONTROL_H
#define PLATFORM_HOST_HOST_CONTROL_H

#include <cstdint>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Calls that can be made to fail; each fails in the way that its contract states.
enum host_call_t : uint32_t {
    HOST_CALL_MALLOC,       // QVR_malloc
    HOST_CALL_CALLOC,       // QVR_calloc
    HOST_CALL_DFOPEN,       // dfopen
    HOST_CALL_DFGET,        // dfget
    HOST_CALL_PROPERTY_GET, // property_get behaves as if the property were not set
    HOST_CALL_SINK_CONSTRUCTOR,
    HOST_CALL_VIDEO_PORT_CONSTRUCTOR,
    HOST_CALL_AUDIO_PORT_CONSTRUCTOR,
    HOST_CALL_TSEM_INIT,
    HOST_CALL_QUEUE,        // queue reports a full queue
    HOST_CALL_DEQUEUE,      // dequeue gives null
    HOST_CALL_START_THREAD, // the framework cannot start a thread of its own
    HOST_CALL_COUNT
};

// Puts everything that this header sets back to its default and the call counts to 0. What is live
// stays counted.
void host_reset(void);

// Sets a system property; a null value unsets it.
// in: key of at most 31 characters (a longer one is ignored), value of at most 91 (cut).
void host_set_property(const char *key, const char *value);

// Lets the next pass calls through, then makes the following fail calls fail (UINT32_MAX: all).
void host_fail_call(host_call_t call, uint32_t pass, uint32_t fail);

// Calls made since the last reset, failed ones included.
uint64_t host_call_count(host_call_t call);

// Allocations of QVR_malloc and QVR_calloc that QVR_free has not released; storage handles that
// dfclose has not closed.
int64_t host_live_allocations(void);
int64_t host_live_storage_handles(void);

// Makes dfget report these figures for a storage instead of the file system's own.
void host_set_storage(int storage, unsigned long total_kib, unsigned long free_kib);

// Log lines below this priority are dropped; the default is ANDROID_LOG_WARN.
void host_set_log_level(int priority);

// Receives every log line that passes the level, instead of standard error; null restores it.
// The sink is called with the log's lock held, on whatever thread logs.
typedef void (*host_log_sink_t)(void *context, int priority, const char *tag, const char *text);
void host_set_log_sink(host_log_sink_t sink, void *context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_HOST_HOST_CONTROL_H

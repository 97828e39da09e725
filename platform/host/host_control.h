// Controls the Linux stand-in of the platform: sets what the device would set, and makes its calls
// fail or report given figures. For the tests and the client; the component never includes it.
#ifndef PLATFORM_HOST_HOST_CONTROL_H
#define PLATFORM_HOST_HOST_CONTROL_H

#include <cstdint>

#pragma GCC visibility push(default)

// Calls that can be made to fail; each fails as its contract states.
enum host_call_t : uint32_t {
    kHostCallMalloc,      // QVR_malloc
    kHostCallCalloc,      // QVR_calloc
    kHostCallDfopen,      // dfopen
    kHostCallDfget,       // dfget
    kHostCallPropertyGet, // property_get behaves as if the property were not set
    kHostCallSinkConstructor,
    kHostCallVideoPortConstructor,
    kHostCallAudioPortConstructor,
    kHostCallTsemInit,
    kHostCallQueue,       // queue reports a full queue
    kHostCallDequeue,     // dequeue returns null
    kHostCallStartThread, // the framework cannot start a thread of its own
    kHostCallCount
};

// Resets every setting of this header to its default and the call counts to 0. The counts of live
// allocations and storage handles remain.
void host_reset(void);

// Sets a system property.
// in: key: at most 31 characters; a longer one is ignored
// in: value: at most 91 characters, the rest is cut; null unsets the property
void host_set_property(const char *key, const char *value);

// Lets the next `passes` calls succeed and the following `failures` calls fail (UINT32_MAX: all).
void host_fail_call(host_call_t call, uint32_t passes, uint32_t failures);

// returns: the calls since the last reset, failed ones included
uint64_t host_call_count(host_call_t call);

// returns: the allocations of QVR_malloc and QVR_calloc that QVR_free has not released
int64_t host_live_allocations(void);
// returns: the storage handles that dfclose has not closed
int64_t host_live_storage_handles(void);

// Makes dfget report these figures for a storage instead of those of the file system.
void host_set_storage(int storage, unsigned long total_kib, unsigned long free_kib);

// Log lines below this priority are dropped; the default is ANDROID_LOG_WARN.
void host_set_log_level(int priority);

// Receives every log line that passes the level.
// thread: any that logs, with the log's lock held
using host_log_sink_t = void (*)(void *context, int priority, const char *tag, const char *text);
// Sends the log to a sink instead of standard error; null restores that.
void host_set_log_sink(host_log_sink_t sink, void *context);

#pragma GCC visibility pop

#endif // PLATFORM_HOST_HOST_CONTROL_H

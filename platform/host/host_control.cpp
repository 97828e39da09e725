#include "platform/host/control_internal.h"

#include <array>
#include <pthread.h>

namespace {

struct call_record_t {
    uint64_t calls;
    uint32_t passes_left;
    uint32_t failures_left; // after the passes; UINT32_MAX: all
};

} // namespace

static pthread_mutex_t lock_calls = PTHREAD_MUTEX_INITIALIZER;
static std::array<call_record_t, kHostCallCount> call_records; // under lock_calls

bool host_call_fails(host_call_t call)
{
    pthread_mutex_lock(&lock_calls);
    call_record_t &record = call_records[call];
    record.calls++;
    bool fails = false;
    if (record.passes_left != 0) {
        record.passes_left--;
    } else if (record.failures_left != 0) {
        fails = true;
        if (record.failures_left != UINT32_MAX) {
            record.failures_left--;
        }
    }
    pthread_mutex_unlock(&lock_calls);
    return fails;
}

void host_fail_call(host_call_t call, uint32_t passes, uint32_t failures)
{
    if (call >= kHostCallCount) {
        return;
    }
    pthread_mutex_lock(&lock_calls);
    call_records[call].passes_left = passes;
    call_records[call].failures_left = failures;
    pthread_mutex_unlock(&lock_calls);
}

uint64_t host_call_count(host_call_t call)
{
    if (call >= kHostCallCount) {
        return 0;
    }
    pthread_mutex_lock(&lock_calls);
    const uint64_t calls = call_records[call].calls;
    pthread_mutex_unlock(&lock_calls);
    return calls;
}

void host_reset(void)
{
    pthread_mutex_lock(&lock_calls);
    call_records = {};
    pthread_mutex_unlock(&lock_calls);
    host_reset_log();
    host_reset_properties();
    host_reset_storage();
}

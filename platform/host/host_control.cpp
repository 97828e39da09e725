#include "platform/host/control_internal.h"

#include <array>
#include <pthread.h>

struct call_record_t {
    uint64_t ullCalls;
    uint32_t uiPass;
    uint32_t uiFail; // UINT32_MAX: for good
};

static pthread_mutex_t lock_calls = PTHREAD_MUTEX_INITIALIZER;
static std::array<call_record_t, HOST_CALL_COUNT> call_records; // under lock_calls

bool host_call_fails(host_call_t call)
{
    pthread_mutex_lock(&lock_calls);
    call_record_t &record = call_records[call];
    record.ullCalls++;
    bool fails = false;
    if (record.uiPass != 0) {
        record.uiPass--;
    } else if (record.uiFail != 0) {
        fails = true;
        if (record.uiFail != UINT32_MAX) {
            record.uiFail--;
        }
    }
    pthread_mutex_unlock(&lock_calls);
    return fails;
}

void host_fail_call(host_call_t call, uint32_t pass, uint32_t fail)
{
    if (call >= HOST_CALL_COUNT) {
        return;
    }
    pthread_mutex_lock(&lock_calls);
    call_records[call].uiPass = pass;
    call_records[call].uiFail = fail;
    pthread_mutex_unlock(&lock_calls);
}

uint64_t host_call_count(host_call_t call)
{
    if (call >= HOST_CALL_COUNT) {
        return 0;
    }
    pthread_mutex_lock(&lock_calls);
    const uint64_t calls = call_records[call].ullCalls;
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

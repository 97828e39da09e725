#include "component/storage_sync.h"

#include "component/component_log.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

// returns: whether there is something to sync; false: the thread ends
static bool wait_for_request(storage_sync_t *sync)
{
    pthread_mutex_lock(&sync->lock);
    while (sync->bDue == 0 && sync->bEnding == 0) {
        pthread_cond_wait(&sync->condChanged, &sync->lock);
    }
    const bool is_due = sync->bEnding == 0;
    sync->bDue = 0;
    pthread_mutex_unlock(&sync->lock);
    return is_due;
}

bool sync_file(int descriptor)
{
    int result = 0;
    do {
        result = fdatasync(descriptor);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// The media first, so that the device rarely has a record without its frame. A device that refuses
// once is not asked again.
static void *sync_storage(void *context)
{
    storage_sync_t *const sync = static_cast<storage_sync_t *>(context);
    bool is_first = true;
    while (wait_for_request(sync)) {
        if (sync->bFailed != 0) {
            continue;
        }
        if (!sync_file(sync->iMedia)) {
            __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Checkpoint: nothing is synced: %s\n",
                                strerror(errno));
            sync->bFailed = 1;
            continue;
        }
        if (sync->iJournal >= 0) {
            (void)sync_file(sync->iJournal);
        }
        if (is_first && sync->iDirectory >= 0) {
            (void)fsync(sync->iDirectory); // not every file system can
        }
        is_first = false;
    }
    return nullptr;
}

bool start_storage_sync(storage_sync_t *sync)
{
    sync->bDue = 0;
    sync->bEnding = 0;
    sync->bFailed = 0;
    sync->bStarted = 0;
    pthread_mutex_init(&sync->lock, nullptr);
    pthread_cond_init(&sync->condChanged, nullptr);
    errno = pthread_create(&sync->hThread, nullptr, sync_storage, sync);
    if (errno != 0) {
        pthread_cond_destroy(&sync->condChanged);
        pthread_mutex_destroy(&sync->lock);
        return false;
    }
    sync->bStarted = 1;
    return true;
}

void request_storage_sync(storage_sync_t *sync)
{
    if (sync->bStarted == 0) {
        return;
    }
    pthread_mutex_lock(&sync->lock);
    sync->bDue = 1;
    pthread_cond_signal(&sync->condChanged);
    pthread_mutex_unlock(&sync->lock);
}

void stop_storage_sync(storage_sync_t *sync)
{
    if (sync->bStarted == 0) {
        return;
    }
    pthread_mutex_lock(&sync->lock);
    sync->bEnding = 1;
    pthread_cond_signal(&sync->condChanged);
    pthread_mutex_unlock(&sync->lock);
    (void)pthread_join(sync->hThread, nullptr);
    pthread_cond_destroy(&sync->condChanged);
    pthread_mutex_destroy(&sync->lock);
    sync->bStarted = 0;
}

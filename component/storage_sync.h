// The thread that waits until a recording's bytes are on the device, so that no other thread has
// to. It takes none of the component's locks.
#ifndef COMPONENT_STORAGE_SYNC_H
#define COMPONENT_STORAGE_SYNC_H

#include <cstdint>
#include <pthread.h>

struct storage_sync_t {
    int iMedia;     // descriptors, the caller's; -1: none
    int iJournal;   // synced after the media
    int iDirectory; // of the two files: synced once, so that their names are on the device too
    pthread_t hThread;
    pthread_mutex_t lock;
    pthread_cond_t condChanged;
    uint32_t bStarted; // the starting and the stopping thread
    uint32_t bDue;     // under lock
    uint32_t bEnding;  // under lock
    uint32_t bFailed;  // the thread; after stop_storage_sync: a sync has failed
};

// Waits until the file's bytes are on the device.
// returns: false when the device refuses some, with errno
[[nodiscard]] bool sync_file(int descriptor);

// Starts the thread for the descriptors in the record.
// returns: false, with errno, when there is no thread: requests are then ignored
[[nodiscard]] bool start_storage_sync(storage_sync_t *sync);

// Lets the thread sync what is written so far. Does not wait.
// thread: the one that writes
void request_storage_sync(storage_sync_t *sync);

// Ends the thread, after a sync that is under way, and waits for it.
// thread: none that requests
void stop_storage_sync(storage_sync_t *sync);

#endif // COMPONENT_STORAGE_SYNC_H

#include "component/storage_watch.h"

#include "component/component_log.h"
#include "component/process_state.h"
#include "platform/storage_info.h"
#include "platform/system_properties.h"

#include <cstring>

static constexpr unsigned long kLeastFreeKib = 51200; // at or below this the storage is full

static bool begins_with(const char *pszPath, const char *pszRoot)
{
    return strncmp(pszPath, pszRoot, strlen(pszRoot)) == 0;
}

bool is_on_removable_storage(const char *pszPath)
{
    return begins_with(pszPath, REMOVABLE_STORAGE_ROOT);
}

bool open_storage(void)
{
    pthread_mutex_lock(&lockDFHandle);
    if (global_mountinfo == nullptr) {
        global_mountinfo = dfopen();
    }
    const bool is_open = global_mountinfo != nullptr;
    pthread_mutex_unlock(&lockDFHandle);
    return is_open;
}

static void close_storage_locked(void)
{
    if (global_mountinfo != nullptr) {
        (void)dfclose(global_mountinfo);
        global_mountinfo = nullptr;
    }
}

void close_storage(void)
{
    pthread_mutex_lock(&lockDFHandle);
    close_storage_locked();
    pthread_mutex_unlock(&lockDFHandle);
}

// returns the storage's record, or null when the storage is not usable.
static const df_record_t *query_storage_locked(const char *pszPath)
{
    if (global_mountinfo == nullptr) {
        return nullptr;
    }
    if (is_on_removable_storage(pszPath)) {
        char szStatus[PROPERTY_VALUE_MAX];
        (void)property_get("qvr.sdcard.db.status", szStatus, "");
        return strcmp(szStatus, "available") == 0 ? dfget(global_mountinfo, DF_REMOVABLE) : nullptr;
    }
    if (begins_with(pszPath, BUILT_IN_STORAGE_ROOT)) {
        return dfget(global_mountinfo, DF_BUILT_IN);
    }
    return nullptr;
}

static storage_state_t check_storage_locked(const char *pszPath)
{
    const df_record_t *const pRecord = query_storage_locked(pszPath);
    if (pRecord == nullptr) {
        return kStorageUnusable;
    }
    if (pRecord->ulFreeKiB <= kLeastFreeKib) {
        __android_log_print(ANDROID_LOG_DEBUG, TDMBREC_LOG_TAG, "%-18s%-20s%20lu%20lu\n",
                            pRecord->pszFileSystem, pRecord->pszMountPoint, pRecord->ulTotalKiB,
                            pRecord->ulFreeKiB);
        close_storage_locked();
        return kStorageFull;
    }
    return kStorageUsable;
}

storage_state_t check_storage(const char *pszPath)
{
    pthread_mutex_lock(&lockDFHandle);
    const storage_state_t state = check_storage_locked(pszPath);
    pthread_mutex_unlock(&lockDFHandle);
    return state;
}

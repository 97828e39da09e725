#include "component/storage_watch.h"

#include "component/component_log.h"
#include "component/process_state.h"
#include "platform/storage_info.h"
#include "platform/system_properties.h"

#include <cstring>

static bool begins_with(const char *path, const char *root)
{
    return strncmp(path, root, strlen(root)) == 0;
}

bool is_on_removable_storage(const char *path)
{
    return begins_with(path, kRemovableStorageRoot);
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

// returns: the storage's record, or null when the storage is not usable
static const df_record_t *query_storage_locked(const char *path)
{
    if (global_mountinfo == nullptr) {
        return nullptr;
    }
    if (is_on_removable_storage(path)) {
        char status[PROPERTY_VALUE_MAX];
        (void)property_get("qvr.sdcard.db.status", status, "");
        return strcmp(status, "available") == 0 ? dfget(global_mountinfo, DF_REMOVABLE) : nullptr;
    }
    if (begins_with(path, kBuiltInStorageRoot)) {
        return dfget(global_mountinfo, DF_BUILT_IN);
    }
    return nullptr;
}

static storage_state_t check_storage_locked(const char *path)
{
    const df_record_t *const record = query_storage_locked(path);
    if (record == nullptr) {
        return kStorageUnusable;
    }
    if (record->ulFreeKiB <= TDMBREC_LEAST_FREE_KIB) {
        __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "%-18s%-20s%20lu%20lu\n",
                            record->pszFileSystem, record->pszMountPoint, record->ulTotalKiB,
                            record->ulFreeKiB);
        close_storage_locked();
        return kStorageFull;
    }
    return kStorageUsable;
}

storage_state_t check_storage(const char *path)
{
    pthread_mutex_lock(&lockDFHandle);
    const storage_state_t state = check_storage_locked(path);
    pthread_mutex_unlock(&lockDFHandle);
    return state;
}

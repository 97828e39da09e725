#include "platform/storage_info.h"

#include "platform/host/control_internal.h"
#include "platform/qvr_memory.h"

#include <array>
#include <atomic>
#include <climits>
#include <pthread.h>
#include <sys/statvfs.h>

static constexpr int kStorageCount = 2;

struct df_handle_t {
    std::array<df_record_t, kStorageCount> records;
};

namespace {

struct storage_figures_t {
    bool is_set;
    unsigned long total_kib;
    unsigned long free_kib;
};

} // namespace

static constexpr std::array<df_record_t, kStorageCount> kStorages = {{
    {.pszFileSystem = "sdcard", .pszMountPoint = "/mnt/sdcard"},
    {.pszFileSystem = "tflash", .pszMountPoint = "/mnt/sdcard/tflash"},
}};

static std::atomic<int64_t> live_handles;
static pthread_mutex_t lock_figures = PTHREAD_MUTEX_INITIALIZER;
static std::array<storage_figures_t, kStorageCount> given_figures; // under lock_figures

// Converts blocks to KiB without overflow of 64 bits; at most ULONG_MAX.
static unsigned long blocks_to_kib(uint64_t blocks, uint64_t block_bytes)
{
    const uint64_t kib = blocks / 1024 * block_bytes + blocks % 1024 * block_bytes / 1024;
    return kib < ULONG_MAX ? static_cast<unsigned long>(kib) : ULONG_MAX;
}

df_handle_t *dfopen(void)
{
    if (host_call_fails(kHostCallDfopen)) {
        return nullptr;
    }
    df_handle_t *handle = static_cast<df_handle_t *>(QVR_calloc(1, sizeof(df_handle_t)));
    if (handle == nullptr) {
        return nullptr;
    }
    handle->records = kStorages;
    live_handles++;
    return handle;
}

const df_record_t *dfget(df_handle_t *handle, int storage)
{
    if (host_call_fails(kHostCallDfget) || handle == nullptr || storage < 0 ||
        storage >= kStorageCount) {
        return nullptr;
    }
    const size_t index = static_cast<size_t>(storage);
    df_record_t &record = handle->records[index];

    pthread_mutex_lock(&lock_figures);
    const storage_figures_t figures = given_figures[index];
    pthread_mutex_unlock(&lock_figures);
    if (figures.is_set) {
        record.ulTotalKiB = figures.total_kib;
        record.ulFreeKiB = figures.free_kib;
        return &record;
    }

    struct statvfs status = {};
    if (statvfs(record.pszMountPoint, &status) != 0) {
        return nullptr;
    }
    record.ulTotalKiB = blocks_to_kib(status.f_blocks, status.f_frsize);
    record.ulFreeKiB = blocks_to_kib(status.f_bavail, status.f_frsize);
    return &record;
}

int dfclose(df_handle_t *handle)
{
    if (handle != nullptr) {
        live_handles--;
        QVR_free(handle);
    }
    return 0;
}

int64_t host_live_storage_handles(void)
{
    return live_handles;
}

void host_set_storage(int storage, unsigned long total_kib, unsigned long free_kib)
{
    if (storage < 0 || storage >= kStorageCount) {
        return;
    }
    pthread_mutex_lock(&lock_figures);
    given_figures[static_cast<size_t>(storage)] = {
        .is_set = true, .total_kib = total_kib, .free_kib = free_kib};
    pthread_mutex_unlock(&lock_figures);
}

void host_reset_storage(void)
{
    pthread_mutex_lock(&lock_figures);
    given_figures = {};
    pthread_mutex_unlock(&lock_figures);
}

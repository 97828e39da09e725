// The base library's storage information.
#ifndef PLATFORM_STORAGE_INFO_H
#define PLATFORM_STORAGE_INFO_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define DF_BUILT_IN 0  // the storage at /mnt/sdcard
#define DF_REMOVABLE 1 // the card at /mnt/sdcard/tflash

typedef struct df_handle_t df_handle_t;

typedef struct df_record_t {
    const char *pszFileSystem;
    const char *pszMountPoint;
    unsigned long ulTotalKiB;
    unsigned long ulFreeKiB; // for an ordinary process
} df_record_t;

// Opens the storage information.
// returns: the handle, or null on failure
// owns: the caller, until dfclose
df_handle_t *dfopen(void);

// Queries one storage anew.
// in: storage: DF_BUILT_IN or DF_REMOVABLE
// returns: its record, valid until the next call with this handle, or null when the storage is
//          missing or cannot be queried
const df_record_t *dfget(df_handle_t *handle, int storage);

// Releases the handle.
// in: handle: may be null
// returns: 0
int dfclose(df_handle_t *handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_STORAGE_INFO_H

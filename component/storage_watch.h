// The storage of a recording: the root of its path, whether it is available and how much room is
// left.
#ifndef COMPONENT_STORAGE_WATCH_H
#define COMPONENT_STORAGE_WATCH_H

#include <cstdint>

inline constexpr char kBuiltInStorageRoot[] = "/mnt/sdcard";
inline constexpr char kRemovableStorageRoot[] = "/mnt/sdcard/tflash";

enum storage_state_t {
    kStorageUsable,
    kStorageUnusable, // no handle, not available, on neither root, or the query failed
    kStorageFull      // too little room; the handle has been closed and the figures logged
};

// returns: true when the path begins with the removable storage's root
[[nodiscard]] bool is_on_removable_storage(const char *path);

// Opens the process's storage handle unless it is open.
// returns: false when that fails
[[nodiscard]] bool open_storage(void);

// Closes the process's storage handle if it is open.
void close_storage(void);

// Checks the storage of a path. Costs one property read and one query for every recorded buffer.
[[nodiscard]] storage_state_t check_storage(const char *path);

#endif // COMPONENT_STORAGE_WATCH_H

// Shows a folder to the component as /mnt/sdcard.
//
// The folder is mounted there in a private mount namespace. Where that is not allowed, as in most
// containers, it is a symbolic link there during the recording, if /mnt is writable and nothing
// else has the name.
#ifndef CLIENT_STORAGE_VIEW_H
#define CLIENT_STORAGE_VIEW_H

#include <string>

inline constexpr char kStorageMount[] = "/mnt/sdcard";

// Enters the private mount namespace, where that is allowed.
// thread: the only one
void storage_isolate(void);

// Shows the folder at /mnt/sdcard. Other paths below /mnt may change their meaning.
// in: folder: its descriptor
// returns: false when that is not possible; an existing /mnt/sdcard may serve instead
// throws: `failure` when another recording has its folder there
[[nodiscard]] bool storage_show(int folder);

// Removes the links, which would outlast the process, and the mount. May be called twice.
// thread: any
void storage_hide(void);

// Reports that another recording uses /mnt/sdcard.
// throws: `failure`
[[noreturn]] void storage_refuse_in_use(void);

// in: error: errno of the attempt to use the existing /mnt/sdcard
// returns: the sentence for a user whose folder could not be shown, with all reasons and the remedy
std::string storage_refusal(int error);

#endif // CLIENT_STORAGE_VIEW_H

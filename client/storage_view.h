// How the component comes to see a folder as /mnt/sdcard.
//
// In a mount namespace of this process's own, the folder is mounted there. Where that is not
// allowed, as in most containers, whoever may write to /mnt gets a symbolic link there for the time
// of the recording, provided that nothing else has the name.
#ifndef CLIENT_STORAGE_VIEW_H
#define CLIENT_STORAGE_VIEW_H

#include <string>

inline constexpr char kStorageMount[] = "/mnt/sdcard";

// Enters the private mount namespace where that is allowed. Call before any thread exists.
void storage_isolate(void);

// Shows the folder, a descriptor, at /mnt/sdcard. Paths below /mnt may mean something else from
// here on. returns false when only what is there already can serve, if anything.
// throws `failure` when another recording has its folder there.
[[nodiscard]] bool storage_show(int folder);

// Takes back what would outlast the process. May be called twice. thread: any.
void storage_hide(void);

// throws: `failure`, because another recording has a folder there
[[noreturn]] void storage_refuse_in_use(void);

// The sentence for a user whose folder could not be shown, nor that which is there be used.
// in: what prevents that, an errno.
std::string storage_refusal(int error);

#endif // CLIENT_STORAGE_VIEW_H

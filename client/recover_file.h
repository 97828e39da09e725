// A file of an interrupted recording, as the recovery reads it and finishes it in place.
#ifndef CLIENT_RECOVER_FILE_H
#define CLIENT_RECOVER_FILE_H

#include "recovery/recovery.h"

#include <string>

struct recover_file {
    int descriptor = -1;
    std::string path;
    int error = 0; // errno of the first call that failed; 0 before it

    recover_file() = default;
    recover_file(const recover_file &) = delete;
    recover_file &operator=(const recover_file &) = delete;
    ~recover_file();
};

// Opens a regular file.
// in: to_write: also for writing
// returns: false with errno
[[nodiscard]] bool recover_file_open(recover_file &file, const std::string &path, bool to_write);

// Locks the open file against other recoveries, where the file system can.
// in: to_write: against any other one, not only against one that writes
// returns: false when another process has locked it
[[nodiscard]] bool recover_file_lock(const recover_file &file, bool to_write);

// returns: the callbacks on the open file, which use the record
recovery_source_t recover_file_source(recover_file &file);
recovery_target_t recover_file_target(recover_file &file);

#endif // CLIENT_RECOVER_FILE_H

// A folder beside an output for its unfinished file. It is visible and has the output's name with a
// suffix. It is locked as long as the process that made it lives: an unlocked one was left by a
// killed process.
#ifndef CLIENT_LOCKED_FOLDER_H
#define CLIENT_LOCKED_FOLDER_H

#include <array>
#include <string>
#include <vector>

// The muxer's scratch files, which are in the folder while a file is being written.
inline constexpr std::array<const char *, 6> kMuxTableNames = {
    "a_stco.tmp", "a_stsz.tmp", "v_stco.tmp", "v_stsz.tmp", "v_stss.tmp", "v_stts_dts.tmp"};

struct locked_folder {
    int descriptor = -1; // holds the lock
    std::string name;    // in the output's directory
};

// Makes the folder OUTPUT_NAME SUFFIX; if that name is taken, a number follows the suffix: "-2" and
// so on.
// returns: the folder
// throws: `failure`, also while another process uses such a folder for the same output
locked_folder locked_folder_make(int directory, const std::string &output_name,
                                 const std::string &suffix);

// Removes the folder if it is empty and still has its name. The lock stays.
void locked_folder_remove(int directory, const locked_folder &folder);

// returns: the names of the existing folders of an output, sorted
std::vector<std::string> locked_folder_names(int directory, const std::string &output_name,
                                             const std::string &suffix);

enum class folder_state {
    left,       // no process used it; this process has the lock now
    in_use,     // another process has the lock
    unlockable, // unknown: no right to open it, or a file system without locks
};

// An existing folder. The record releases its descriptor and lock.
struct found_folder {
    locked_folder folder;
    folder_state state = folder_state::unlockable;

    found_folder() = default;
    found_folder(const found_folder &) = delete;
    found_folder &operator=(const found_folder &) = delete;
    ~found_folder();
};

// Opens and locks an existing folder.
// in: lock: LOCK_SH to look, LOCK_EX to clear
// out: found: no descriptor without the right to open the folder
// returns: false when there is no such folder
[[nodiscard]] bool locked_folder_find(found_folder &found, int directory, const std::string &name,
                                      int lock);

#endif // CLIENT_LOCKED_FOLDER_H

// A folder beside an output for what is not finished yet. It is visible, carries the output's name,
// and is locked for as long as the process that made it lives, so that a folder that is in use can
// be told from one that a killed process left.
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

// Makes the folder NAME and suffix; where others have that name, NAME, suffix, "-2" and so on.
// throws `failure`, also while another process has such a folder in use for the same output.
locked_folder locked_folder_make(int directory, const std::string &output_name,
                                 const std::string &suffix);

// Removes the folder from under its name if it is empty; the lock stays.
void locked_folder_remove(int directory, const locked_folder &folder);

// The folders of an output that are there, by name.
std::vector<std::string> locked_folder_names(int directory, const std::string &output_name,
                                             const std::string &suffix);

enum class folder_state {
    left,       // no process has it: this process has the lock now
    in_use,     // another process has it
    unlockable, // it may not be opened, or the file system has no locks: nobody can say
};

// A folder that is there, for as long as the record lives.
struct found_folder {
    locked_folder folder;
    folder_state state = folder_state::unlockable;

    found_folder() = default;
    found_folder(const found_folder &) = delete;
    found_folder &operator=(const found_folder &) = delete;
    ~found_folder();
};

// Without the right to open it, there is no descriptor.
// in: lock: LOCK_SH to look, LOCK_EX to clear
// returns false when there is no such folder.
[[nodiscard]] bool locked_folder_find(found_folder &found, int directory, const std::string &name,
                                      int lock);

#endif // CLIENT_LOCKED_FOLDER_H

// Finds what interrupted recordings have left.
#ifndef CLIENT_RECOVER_SEARCH_H
#define CLIENT_RECOVER_SEARCH_H

#include "client/locked_folder.h"
#include "recovery/recovery.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

// An interrupted recording. Its folders stay locked as long as the record exists.
struct broken_recording {
    std::string path;                                     // of the media, for the user
    std::string journal;                                  // empty: there is none
    std::array<std::string, RECOVERY_TABLE_COUNT> tables; // scratch files; empty: there is none
    std::string output_folder; // where the recovered file is made, unless the user names a file
    std::string output_name;   // of the recovered file, without the suffix
    std::string output_suffix; // between the stem of the name and its extension
    std::string neighbours;    // the folder in which other recordings of the channel may be
    std::string left;          // the folder that "record" left; empty for a file of its own
    // The folders of "record" that hold the file or a link to it.
    std::vector<std::unique_ptr<found_folder>> locks;
    bool is_in_use = false; // another process has locked one of them
};

// Looks at a file; at a folder that "record" left; or into any other folder for such folders, for
// files with a journal, and for files that begin as a recording and have no movie box.
// in: to_change: the recordings will be changed
// returns: what was found, sorted; empty when a folder holds nothing
// throws: `failure` when the path cannot be read
std::vector<broken_recording> recover_search(const std::string &path, bool to_change);

// Chooses the recovered file's path when its recovery begins: other recordings of the same name may
// have been recovered by then.
// returns: FOLDER/STEM SUFFIX EXTENSION, or with a number, as a path that does not exist
std::string recover_output_of(const broken_recording &broken);

#endif // CLIENT_RECOVER_SEARCH_H

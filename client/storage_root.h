// The storage that the component records to, and the file's way from there to the output's place.
//
// The component accepts only paths below /mnt/sdcard, and watches the free space there. A folder
// beside the output is therefore shown under that name: the component sees the output's file
// system, and the finished file moves to its place by a rename. Where that is not allowed, a
// writable /mnt/sdcard is used as it is, and the folder holds a link to the recording. A file with
// media data is never removed.
#ifndef CLIENT_STORAGE_ROOT_H
#define CLIENT_STORAGE_ROOT_H

#include "client/locked_folder.h"
#include "client/output_place.h"
#include "client/storage_view.h"
#include "client/unfinished_recording.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct storage_root {
    std::unique_ptr<output_place> place; // of the finished file
    locked_folder folder;                // beside it, for this recording alone
    int scratch = -1;                    // the folder shown as /mnt/sdcard
    std::string record_name;             // of the recording, relative to scratch
    bool is_shared = false;              // /mnt/sdcard is used as it is, beside other files
    std::atomic<bool> is_moved = false;  // from scratch into the folder
    bool made_card = false;              // the card's directory is removed with the recording
    std::string directory_path;          // of the output's directory, absolute
    bool was_in_sight = false;           // the path led to the directory at the start

    storage_root() = default;
    storage_root(const storage_root &) = delete;
    storage_root &operator=(const storage_root &) = delete;
    ~storage_root(); // removes everything but media data
};

// Checks that the output may be written, and changes nothing.
// returns: the storage
// throws: `failure`
std::unique_ptr<storage_root> storage_open(const std::string &output, bool force);

// Prepares /mnt/sdcard for the component. Other paths below /mnt may change their meaning.
// in: card: record to the removable card below it
// throws: `failure`
void storage_provide(storage_root &root, bool card);

// returns: the recording's path for the component
std::string storage_component_path(const storage_root &root);

// returns: the space left for the recording
uint64_t storage_free_bytes(const storage_root &root);

// returns: the size of the recording's file so far
uint64_t storage_recorded_bytes(const storage_root &root);

// Opens the recording for reading.
// returns: a descriptor, -1 when there is no file
// owns: the caller closes it
int storage_open_recording(const storage_root &root);

// Tries to write to the storage.
// returns: what is wrong with it, as the end of a sentence; empty when nothing is
std::string storage_trouble(const storage_root &root);

// returns: whether the output's path no longer leads to its directory
bool storage_is_out_of_sight(const storage_root &root);

// returns: whether the recording's file still has its name
bool storage_has_recording(const storage_root &root);

// Syncs the finished recording to the output's file system, which may take long.
// throws: `failure`
void storage_settle(storage_root &root);

// Moves the settled recording to the output's place, atomically.
// throws: `failure`
void storage_publish(storage_root &root);

// returns: the state of the recording in the storage
// thread: any
unfinished_recording storage_look(const storage_root &root);

// Removes everything of the recording from the storage except media data. May be called twice.
// thread: any, if no other uses the root
void storage_discard(storage_root &root);

#endif // CLIENT_STORAGE_ROOT_H

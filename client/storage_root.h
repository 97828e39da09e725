// The storage that the component records to, and the way from there to the output's place.
//
// The component accepts paths below /mnt/sdcard only and watches the free space there. So it is
// shown a folder beside the output under that name: what it sees is the output's file system, and
// the finished file moves to its place by a rename. Where that is not allowed, a writable
// /mnt/sdcard serves as it is, and the folder holds a link to the recording. What holds media data
// is never removed.
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
    std::unique_ptr<output_place> place; // where the finished file goes
    locked_folder folder;                // beside it, for this recording alone
    int scratch = -1;                    // what the component sees as /mnt/sdcard
    std::string record_name;             // of the recording, seen from the scratch directory
    bool is_shared = false;              // /mnt/sdcard itself serves, where others record, too
    std::atomic<bool> is_moved = false;  // from there into the folder
    bool made_card = false;              // the card's directory goes with the recording
    std::string directory_path;          // of the output's directory, absolute
    bool was_in_sight = false;           // the directory was found by it

    storage_root() = default;
    storage_root(const storage_root &) = delete;
    storage_root &operator=(const storage_root &) = delete;
    ~storage_root(); // nothing but media data stays of the recording
};

// Checks that the file may be written, without touching anything. throws `failure`.
std::unique_ptr<storage_root> storage_open(const std::string &output, bool force);

// Makes /mnt/sdcard ready for the component; with `card`, the removable card below it. Paths below
// /mnt may mean something else from here on. throws `failure`.
void storage_provide(storage_root &root, bool card);

// The path at which the component is to record.
std::string storage_component_path(const storage_root &root);

// Space left for the recording in bytes, and what the recording has on the disk so far.
uint64_t storage_free_bytes(const storage_root &root);
uint64_t storage_recorded_bytes(const storage_root &root);

// Opens the recording for reading. returns -1 when there is none.
int storage_open_recording(const storage_root &root);

// What is wrong with the storage, tried out, as the end of a sentence; empty when nothing is.
std::string storage_trouble(const storage_root &root);

// Whether the output's directory is no longer found by its path.
bool storage_is_out_of_sight(const storage_root &root);

// Whether the recording's file is where the component made it.
bool storage_has_recording(const storage_root &root);

// Brings the finished recording to the disk, on the output's file system, which may take long.
// throws `failure`.
void storage_settle(storage_root &root);

// Moves the settled recording to its place, replacing another file only as a whole. throws
// `failure`.
void storage_publish(storage_root &root);

// What there is of the recording in the storage. thread: any.
unfinished_recording storage_look(const storage_root &root);

// Removes what the recording left in the storage, unless it holds media data. May be called twice.
// thread: any, when no other uses the root.
void storage_discard(storage_root &root);

#endif // CLIENT_STORAGE_ROOT_H

// The storage that the component records to, and the way from there to the output's place.
//
// The component accepts paths below /mnt/sdcard only and watches the free space there. So it is
// shown a scratch directory beside the output under that name: what it sees is the output's file
// system, and the finished file moves to its place by a rename. Where that is not allowed, a
// writable /mnt/sdcard serves as it is.
#ifndef CLIENT_STORAGE_ROOT_H
#define CLIENT_STORAGE_ROOT_H

#include "client/output_place.h"
#include "client/storage_view.h"

#include <cstdint>
#include <memory>
#include <string>

struct storage_root {
    std::unique_ptr<output_place> place; // where the finished file goes
    int scratch = -1;                    // what the component sees as /mnt/sdcard
    std::string scratch_name; // of that directory at the place; empty: /mnt/sdcard itself serves
    std::string record_name;  // of the recording, seen from the scratch directory
    bool made_card = false;   // the card's directory goes with the recording

    storage_root() = default;
    storage_root(const storage_root &) = delete;
    storage_root &operator=(const storage_root &) = delete;
    ~storage_root(); // nothing of the recording stays, unless it was moved to its place
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

// Moves the finished recording to its place, replacing another file only as a whole.
// throws `failure`; the recording then stays, and the sentence says where.
void storage_publish(storage_root &root);

// Lets the recording stay where the component made it. returns the place, for the user.
std::string storage_keep(storage_root &root);

// Removes what the recording left in the storage. May be called twice. thread: any, when no other
// uses the root.
void storage_discard(storage_root &root);

#endif

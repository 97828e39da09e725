// The files of an unfinished recording, and the search for those that earlier commands left.
#ifndef CLIENT_UNFINISHED_RECORDING_H
#define CLIENT_UNFINISHED_RECORDING_H

#include "client/locked_folder.h"
#include "component/tdmbrec_interface.h"

#include <cstdint>
#include <string>
#include <vector>

inline constexpr char kRecordingSuffix[] = ".recording"; // of the folder beside the output

// The recording, in the folder or on the card below it.
inline constexpr char kRecordingName[] = "recording.mp4";
inline constexpr char kCardName[] = "tflash";

// The journal beside the recording, until that is finished.
inline constexpr char kJournalName[] = "recording.mp4" TDMBREC_JOURNAL_SUFFIX;

// The copy of a finished recording from another file system, until it is complete.
inline constexpr char kCopyName[] = "copy.mp4";

enum class recording_state {
    empty,      // no media data, or no file
    unfinished, // media data without a complete movie box, or a file that cannot be read
    finished,
    unreachable, // a file that cannot be opened, or a link to missing storage
};

struct unfinished_recording {
    std::string place;  // of the file, for the user
    std::string source; // what "tdmbrec recover" takes
    folder_state folder = folder_state::left;
    recording_state file = recording_state::empty;
    uint64_t bytes = 0;
};

// Judges a file by its boxes.
// returns: all but the place, which the caller knows
unfinished_recording unfinished_recording_look(int directory, const std::string &name);

// returns: whether a file begins as the recorder's files do, and has no movie box
bool is_broken_recording(const std::string &path);

// Removes the folder, unless it holds media data or other files.
void unfinished_recording_clear(int directory, const locked_folder &folder);

// returns: the unfinished recordings to an output, under way in another process or left by one
std::vector<unfinished_recording> unfinished_recordings_of(const std::string &output);

// Removes the folders that were left without media data.
void unfinished_recordings_clear(const std::string &output);

// returns: one sentence about such a recording, without a full stop
std::string unfinished_recording_text(const std::string &output,
                                      const unfinished_recording &recording);

// returns: its kind, size and place and what to do with it, as the end of a sentence
std::string kept_text(const unfinished_recording &recording);

#endif // CLIENT_UNFINISHED_RECORDING_H

// What a recording that is not finished consists of on the disk, and what was left of earlier ones.
#ifndef CLIENT_UNFINISHED_RECORDING_H
#define CLIENT_UNFINISHED_RECORDING_H

#include "client/locked_folder.h"

#include <cstdint>
#include <string>
#include <vector>

// The folder beside the output has the output's name with this after it.
inline constexpr char kRecordingSuffix[] = ".recording";

// The recording, in the folder or on the card below it.
inline constexpr char kRecordingName[] = "recording.mp4";
inline constexpr char kCardName[] = "tflash";

// The copy of a finished recording from another file system, while it is made.
inline constexpr char kCopyName[] = "copy.mp4";

enum class recording_state {
    empty,      // nothing that was recorded, or no file
    unfinished, // media data without a whole movie box, or a file that nobody can judge
    finished,
    unreachable, // a file that cannot be opened, or a link to storage that is not there
};

struct unfinished_recording {
    std::string place; // of the file, for the user
    folder_state folder = folder_state::left;
    recording_state file = recording_state::empty;
    uint64_t bytes = 0;
};

// Judges a file by its boxes. Its place is the caller's to tell.
unfinished_recording unfinished_recording_look(int directory, const std::string &name);

// Removes such a folder, unless it holds media data or what is not of a recording.
void unfinished_recording_clear(int directory, const locked_folder &folder);

// The recordings to an output that are not finished: under way in another process, or left by one.
std::vector<unfinished_recording> unfinished_recordings_of(const std::string &output);

// Removes what was left without media data.
void unfinished_recordings_clear(const std::string &output);

// One sentence about one of them, without a full stop.
std::string unfinished_recording_text(const std::string &output,
                                      const unfinished_recording &recording);

// What there is of it, where, and what to do with it; the end of a sentence.
std::string kept_text(const unfinished_recording &recording);

#endif // CLIENT_UNFINISHED_RECORDING_H

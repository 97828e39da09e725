// One recording of the command, and what is noted about it for the summary.
#ifndef CLIENT_RECORDING_H
#define CLIENT_RECORDING_H

#include "client/failure.h"
#include "client/il_session.h"
#include "client/input/programme_input.h"
#include "client/options.h"
#include "client/storage_root.h"
#include "client/summary.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// With this much free space or less, the component does not record.
inline constexpr uint64_t kFreeBytesKept = uint64_t{TDMBREC_LEAST_FREE_KIB} * 1024;

struct recording {
    const record_options &options;
    recording_summary summary;
    std::unique_ptr<storage_root> storage;
    std::unique_ptr<programme_input> programme;
    il_session_ptr component;
    std::chrono::steady_clock::time_point begun;
    std::chrono::steady_clock::time_point shown; // the progress line
    bool has_file = false;                       // the recording's file has been seen
    bool is_published = false;
    int64_t lead_us = 0; // from the time base to the first picture
    int64_t sent_us = 0; // of the programme
    uint64_t sent_video_bytes = 0;
    uint64_t sent_pictures = 0, sent_sound_frames = 0;
};

// Prints the remarks as warnings and adds them to the summary.
void recording_warn(recording &self, const std::vector<std::string> &remarks);

// Notes a failure. Only the first one decides the message and the exit code.
void recording_note_failure(recording &self, const failure &what);

// As above, with the state of the storage added to the sentence.
void recording_note_storage_failure(recording &self, exit_code code, const std::string &sentence);

// Gives the summary the losses of the programme, and those of the component: what it was sent, but
// has not recorded.
void recording_account_for_losses(recording &self);

// Notes the reason for which the component itself ended the recording.
// in: reason: tdmbrec_stop_reason_t
void recording_note_stop(recording &self, uint32_t reason);

#endif // CLIENT_RECORDING_H

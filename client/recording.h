// One recording of the command, in one file or several, and what is noted about it for the summary.
#ifndef CLIENT_RECORDING_H
#define CLIENT_RECORDING_H

#include "client/failure.h"
#include "client/il_session.h"
#include "client/input/programme_input.h"
#include "client/options.h"
#include "client/output_series.h"
#include "client/storage_root.h"
#include "client/summary.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// With this much free space or less, the component does not record.
inline constexpr uint64_t kFreeBytesKept = uint64_t{TDMBREC_LEAST_FREE_KIB} * 1024;

// The file that is being recorded.
struct recording_part {
    std::unique_ptr<storage_root> storage;
    bool has_file = false; // the recording's file has been seen
    bool is_published = false;
    int64_t picture_us = 0; // the first picture's time in the programme
    int64_t begin_us = 0;   // of the file
    int64_t lead_us = 0;    // from the component's time base to the beginning
    uint64_t sent_video_bytes = 0;
    uint64_t sent_pictures = 0, sent_sound_frames = 0;
    int64_t looked_us = 0; // in the file, when the component last had a buffer of the video
};

struct recording {
    const record_options &options;
    recording_summary summary;
    std::unique_ptr<programme_input> programme;
    il_session_ptr component;
    output_series outputs;
    recording_part part;
    bool splits = false;                // continues in further files
    std::optional<programme_unit> held; // the picture with which the next file begins
    std::chrono::steady_clock::time_point begun;
    std::chrono::steady_clock::time_point shown; // the progress line
    std::optional<failure> broken_off;           // of the input, which may come back
    double silent_s = 0;                         // nothing has arrived from a live source
    int64_t sent_us = 0;                         // of the programme, to the end of the last unit
    int64_t earlier_us = 0; // of the programmes before, whose input has come back
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

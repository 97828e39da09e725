// The summary of a recording, as text and as JSON.
#ifndef CLIENT_SUMMARY_H
#define CLIENT_SUMMARY_H

#include "client/finished_file.h"
#include "client/input/loss.h"

#include <optional>
#include <string>
#include <vector>

// A finished file of a recording that continues in another one.
struct recorded_file {
    std::string output;
    double begin_s; // in the programme
    file_summary file;
    loss_account losses; // with times from the file's begin
};

struct recording_summary {
    std::vector<recorded_file> earlier;
    std::string output;
    double begin_s = 0;               // of the output
    std::optional<file_summary> file; // nothing: no file was made
    std::string ended;                // the reason, for the user
    std::optional<uint32_t> stop_reason;
    std::string error; // the first failure; empty: none
    std::string kept;  // the place of a recording that did not become the output
    std::vector<std::string> remarks;
    loss_account losses;
    int status = 0; // exit code
    double elapsed_s = 0;
};

// returns: a few lines, the last one with its newline
std::string summary_text(const recording_summary &summary);

// returns: one JSON object and a newline
std::string summary_json(const recording_summary &summary);

#endif // CLIENT_SUMMARY_H

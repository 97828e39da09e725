// What is told at the end of a recording, as text and as data.
#ifndef CLIENT_SUMMARY_H
#define CLIENT_SUMMARY_H

#include "client/finished_file.h"

#include <optional>
#include <string>
#include <vector>

struct recording_summary {
    std::string output;
    std::optional<file_summary> file; // nothing: no file was left
    std::string ended;                // why, in words
    std::optional<uint32_t> stop_reason;
    std::string error; // what went wrong first; empty when nothing did
    std::string kept;  // where what was recorded stays without having taken the output's name
    std::vector<std::string> remarks;
    int status = 0; // exit code
    double elapsed_s = 0;
};

// The summary in a few lines, and as one JSON object; both end in a newline.
std::string summary_text(const recording_summary &summary);
std::string summary_json(const recording_summary &summary);

#endif // CLIENT_SUMMARY_H

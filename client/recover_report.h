// The outcome of a recovery, as text and as JSON.
#ifndef CLIENT_RECOVER_REPORT_H
#define CLIENT_RECOVER_REPORT_H

#include "client/finished_file.h"
#include "client/recover_search.h"
#include "recovery/recovery.h"

#include <optional>
#include <string>
#include <vector>

// A hole, or the bytes after the last whole frame.
struct recover_hole {
    int64_t offset = 0;
    int64_t bytes = 0;
    uint32_t after_ms = 0; // time of the last frame before it
};

struct recover_outcome {
    std::string source; // the broken file
    std::string output; // the finished one; empty: none
    std::string left;   // the folder that may be deleted afterwards; empty: none
    bool is_in_place = false;
    recovery_report_t report = {};
    std::vector<recover_hole> holes;
    std::optional<recover_hole> end;
    std::string end_kind;      // what the cut frame is
    std::string configuration; // its source for the user
    bool is_guess = false;
    std::optional<file_summary> file; // read back
    std::vector<std::string> remarks;
    std::string error; // empty: recovered
    int status = 0;    // exit code
};

// returns: a few lines, the last one with its newline
std::string recover_text(const recover_outcome &outcome);

// returns: why the journal was not used, without a full stop; empty when it was, or is missing
std::string recover_journal_flaw(const recovery_report_t &report);

// in: error: why there are no recordings; empty when there are
// returns: one JSON object and a newline
std::string recover_json(const std::vector<recover_outcome> &outcomes, const std::string &error,
                         int status);

#endif // CLIENT_RECOVER_REPORT_H

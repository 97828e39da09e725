#include "client/recover_command.h"

#include "client/failure.h"
#include "client/recover_job.h"
#include "client/terminal.h"

#include <algorithm>

static recover_outcome recover(const recover_options &options, const broken_recording &broken)
{
    recover_outcome outcome = {.source = broken.path, .left = broken.left};
    try {
        recover_job_run(options, broken, outcome);
    } catch (const failure &what) {
        outcome.error = what.what();
        outcome.status = static_cast<int>(what.code);
    }
    terminal_show_progress("");
    return outcome;
}

static bool is_aborted(int status)
{
    return status >= static_cast<int>(exit_code::aborted);
}

static void say(const recover_options &options, const recover_outcome &outcome)
{
    for (const std::string &remark : outcome.remarks) {
        terminal_say("tdmbrec: warning: " + remark);
    }
    if (!outcome.error.empty()) {
        terminal_say("tdmbrec: " + outcome.error);
    } else if (!options.json) {
        terminal_print(recover_text(outcome));
    }
}

// A failure comes before what is less than perfect, and nothing to recover counts only alone.
static int status_of(const std::vector<recover_outcome> &outcomes)
{
    static constexpr int kNothing = static_cast<int>(exit_code::nothing);
    static constexpr int kRecovered = static_cast<int>(exit_code::recovered);
    int status = kNothing;
    for (const recover_outcome &outcome : outcomes) {
        const int next = outcome.status;
        const bool is_failure = next != 0 && next != kNothing && next < kRecovered;
        if (is_failure || is_aborted(next)) {
            return next;
        }
        if (next != kNothing) {
            status = status == kNothing ? next : status | next;
        }
    }
    return status;
}

static std::vector<broken_recording> search(const recover_options &options)
{
    std::vector<broken_recording> found = recover_search(options.broken, options.in_place);
    if (found.empty()) {
        throw failure(exit_code::nothing,
                      options.broken + ": nothing to recover: no interrupted recording is in it");
    }
    if (found.size() > 1 && !options.output.empty()) {
        throw failure(exit_code::usage, options.broken + ": holds " + std::to_string(found.size()) +
                                            " recordings, and --output names only one file");
    }
    return found;
}

static int recover_found(const recover_options &options, std::vector<recover_outcome> &outcomes)
{
    for (const broken_recording &broken : search(options)) {
        outcomes.push_back(recover(options, broken));
        say(options, outcomes.back());
        if (is_aborted(outcomes.back().status)) {
            break;
        }
    }
    return status_of(outcomes);
}

int recover_run(const recover_options &options)
{
    std::vector<recover_outcome> outcomes;
    std::string error;
    int status = 0;
    try {
        status = recover_found(options, outcomes);
    } catch (const failure &what) {
        error = what.what();
        status = static_cast<int>(what.code);
        terminal_say("tdmbrec: " + error);
    }
    if (options.json) {
        terminal_print(recover_json(outcomes, error, status));
    }
    return status;
}

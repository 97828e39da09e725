// The command's exit codes, and the exception that carries one with its sentence.
#ifndef CLIENT_FAILURE_H
#define CLIENT_FAILURE_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

enum class exit_code : int {
    finished = 0,     // also when the user ended the recording
    faults = 1,       // the inspected file is not valid
    usage = 2,        // the command line is wrong
    input = 3,        // an input cannot be read, or broke off
    unsupported = 4,  // an input holds something that cannot be recorded
    output = 5,       // the output cannot be written
    storage = 6,      // the component's storage cannot be provided
    component = 7,    // the component is missing or failed
    kept = 8,         // the recording is kept, but not under the output's name
    nothing = 9,      // nothing to recover
    stop_reason = 10, // plus the reason for which the component ended the recording
    recovered = 20,   // plus what is less than perfect: kRecoveredWith…
    aborted = 128,    // plus the number of the signal
};

// Numbers that are added to exit_code::recovered, unless both are 0.
enum : int { kRecoveredWithHoles = 1, kRecoveredWithGuess = 2 };

// The code of a family that adds a number to its base: stop_reason, recovered and aborted.
inline exit_code exit_code_plus(exit_code base, int number)
{
    return static_cast<exit_code>(static_cast<int>(base) + number);
}

// A failure that ends the command: its code, and one sentence for the user.
struct failure : std::runtime_error {
    failure(exit_code why, const std::string &sentence) : std::runtime_error(sentence), code(why)
    {
    }
    exit_code code;
};

// Throws the failure of a system call: the sentence, and the reason in errno.
[[noreturn]] inline void fail_with_errno(exit_code code, const std::string &sentence)
{
    throw failure(code, sentence + ": " + std::strerror(errno));
}

#endif // CLIENT_FAILURE_H

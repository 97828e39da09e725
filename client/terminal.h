// The user's terminal: lines of text on standard error, and below them one progress line.
#ifndef CLIENT_TERMINAL_H
#define CLIENT_TERMINAL_H

#include <string>
#include <vector>

// Writes a line above the progress line.
// thread: any
void terminal_say(const std::string &line);

// Replaces the progress line; an empty one clears it. Does nothing unless standard error is a
// terminal.
// thread: any
void terminal_show_progress(const std::string &line);

// As above, for a line of parts, the most important first: those that a narrow terminal has no room
// for are left out.
void terminal_show_progress_parts(std::vector<std::string> parts);

// Writes the component's log lines to standard error.
// in: verbosity: 0 for errors, 1 also for routine messages, 2 for everything
void terminal_follow_component(int verbosity);

// Prints a command's result to standard output.
// throws: `failure` when it cannot be written
void terminal_print(const std::string &text);

#endif // CLIENT_TERMINAL_H

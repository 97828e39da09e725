// Standard error as the user sees it: lines of text, and below them one line of progress.
#ifndef CLIENT_TERMINAL_H
#define CLIENT_TERMINAL_H

#include <string>

// Writes a line; the progress line makes room. thread: any.
void terminal_say(const std::string &line);

// Replaces the progress line; an empty one clears it. Does nothing when standard error is no
// terminal. thread: any.
void terminal_show_progress(const std::string &line);

// Writes the component's log as lines of its own: its errors; with a verbosity of 1 also its
// routine, with 2 everything.
void terminal_follow_component(int verbosity);

// Prints a command's result to standard output. throws `failure` when nothing takes it.
void terminal_print(const std::string &text);

#endif // CLIENT_TERMINAL_H

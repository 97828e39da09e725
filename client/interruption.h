// SIGINT, SIGTERM and SIGHUP, unless they are ignored from the start. The first asks for the end of
// the recording, the second aborts the command.
#ifndef CLIENT_INTERRUPTION_H
#define CLIENT_INTERRUPTION_H

#include <chrono>

// Blocks the signals in this thread and in all that it starts.
// thread: the only one
void interruption_block(void);

// Starts to listen. At the second signal, on_abort is called on the listening thread; the process
// then exits with exit_code::aborted plus the signal's number.
void interruption_listen(void (*on_abort)(void));

// returns: the number of the first signal, 0 before it
int interruption_signal(void);

// Ends the command if the first signal has come.
// throws: `failure`
void interruption_check(void);

// Sleeps until the moment, or until the first signal.
// returns: true for the signal
bool interruption_sleep_until(std::chrono::steady_clock::time_point moment);

#endif // CLIENT_INTERRUPTION_H

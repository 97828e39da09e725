// SIGINT, SIGTERM and SIGHUP, as far as they are not ignored from the start: the first asks for the
// end of the recording, the second gives up.
#ifndef CLIENT_INTERRUPTION_H
#define CLIENT_INTERRUPTION_H

#include <chrono>

// Keeps the signals back from this thread and all that it starts. Call before any thread exists.
void interruption_block(void);

// Starts to listen. The function is called on the listening thread at the second signal; the
// process then exits with exit_code::given_up plus the signal's number.
void interruption_listen(void (*give_up)(void));

// The number of the signal by which the user has asked for the end; 0 as long as nobody did.
int interruption_signal(void);

// Ends what is under way when the user has asked for it. throws `failure`.
void interruption_check(void);

// Sleeps until the moment. returns at once, with true, when the user asks for the end.
bool interruption_sleep_until(std::chrono::steady_clock::time_point moment);

#endif // CLIENT_INTERRUPTION_H

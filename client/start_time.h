// The moment at which a recording is to begin, as the user gives it.
#ifndef CLIENT_START_TIME_H
#define CLIENT_START_TIME_H

#include <chrono>
#include <string>

// in: text: local time, HH:MM or HH:MM:SS for the next such moment, or with YYYY-MM-DD and a space
//     or T before it
// out: moment: only set without a mistake
// returns: the mistake, empty if there is none
std::string start_time_read(const std::string &text, std::chrono::system_clock::time_point now,
                            std::chrono::system_clock::time_point &moment);

#endif // CLIENT_START_TIME_H

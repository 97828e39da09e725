// Lengths of time, as a user writes them.
#ifndef CLIENT_TIME_SPAN_H
#define CLIENT_TIME_SPAN_H

#include <cstdint>
#include <optional>
#include <string>

// in: seconds ("90", "2.5"), a clock ("1:30", "1:30:00") or units ("90s", "1h30m"), at most a year
// returns: microseconds, more than 0; nothing for any other text
std::optional<int64_t> time_span_us(const std::string &text);

#endif // CLIENT_TIME_SPAN_H

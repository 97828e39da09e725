// Numbers as text for people.
#ifndef CLIENT_REPORT_FIGURES_H
#define CLIENT_REPORT_FIGURES_H

#include <cstdint>
#include <string>

// in: as for printf
// returns: the formatted text, cut to its first 159 characters
__attribute__((format(printf, 1, 2))) std::string format_text(const char *format, ...);

// returns: a duration such as 2:03.4 or 1:02:03.4
std::string duration_text(double seconds);

// returns: the time that something took: 16 ms, or 2.3 s from a second on
std::string elapsed_text(double seconds);

// returns: a size such as 12.3 MB
std::string size_text(uint64_t bytes);

#endif // CLIENT_REPORT_FIGURES_H

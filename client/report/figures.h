// Figures as people read them.
#ifndef CLIENT_REPORT_FIGURES_H
#define CLIENT_REPORT_FIGURES_H

#include <cstdint>
#include <string>

// in: as for printf.
// returns: the formatted text, cut to its first 159 characters.
__attribute__((format(printf, 1, 2))) std::string format_text(const char *format, ...);

// A duration as 1:02:03.4, a size as 12.3 MB.
std::string duration_text(double seconds);
std::string size_text(uint64_t bytes);

#endif // CLIENT_REPORT_FIGURES_H

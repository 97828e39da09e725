// Figures as people read them.
#ifndef CLIENT_REPORT_FIGURES_H
#define CLIENT_REPORT_FIGURES_H

#include <cstdint>
#include <string>

// printf to a string, of 160 characters at most.
__attribute__((format(printf, 1, 2))) std::string print(const char *format, ...);

// A duration as 1:02:03.4, a size as 12.3 MB.
std::string duration_text(double seconds);
std::string size_text(uint64_t bytes);

#endif // CLIENT_REPORT_FIGURES_H

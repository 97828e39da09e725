#include "client/report/figures.h"

#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>

std::string format_text(const char *format, ...)
{
    std::array<char, 160> text = {};
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    return text.data();
}

std::string duration_text(double seconds)
{
    const long long tenths = std::llround(seconds * 10);
    const long long minutes = tenths / 600;
    if (minutes >= 60) {
        return format_text("%lld:%02lld:%02lld.%lld", minutes / 60, minutes % 60, tenths / 10 % 60,
                           tenths % 10);
    }
    return format_text("%lld:%02lld.%lld", minutes, tenths / 10 % 60, tenths % 10);
}

std::string elapsed_text(double seconds)
{
    const long long elapsed_ms = std::llround(seconds * 1000);
    return elapsed_ms < 1000 ? format_text("%lld ms", elapsed_ms) : format_text("%.1f s", seconds);
}

std::string size_text(uint64_t bytes)
{
    const double size = static_cast<double>(bytes);
    if (bytes < 1'000'000) {
        return format_text("%.0f kB", size / 1e3);
    }
    return bytes < 1'000'000'000 ? format_text("%.1f MB", size / 1e6)
                                 : format_text("%.2f GB", size / 1e9);
}

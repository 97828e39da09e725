#include "client/output_series.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>

// A pattern that expands to nothing is used as it is.
static std::string expand(const std::string &pattern)
{
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    std::ostringstream text;
    if (localtime_r(&now, &parts) != nullptr) {
        text << std::put_time(&parts, pattern.c_str());
    }
    return text.str().empty() ? pattern : text.str();
}

static std::string numbered(const std::string &name, unsigned number)
{
    const std::filesystem::path path = name;
    std::array<char, 16> text = {};
    std::snprintf(text.data(), text.size(), "-%03u", number);
    return (path.parent_path() / path.stem()).string() + text.data() + path.extension().string();
}

static bool is_taken(const output_series &series, const std::string &name)
{
    std::error_code ignored;
    return series.names.contains(name) ||
           (!series.force && !series.names.empty() && std::filesystem::exists(name, ignored));
}

std::string output_series_next(output_series &series)
{
    const std::string base = series.has_times ? expand(series.pattern) : series.pattern;
    std::string name = base;
    for (unsigned number = 2; is_taken(series, name); number++) {
        name = numbered(base, number);
    }
    series.names.insert(name);
    return name;
}

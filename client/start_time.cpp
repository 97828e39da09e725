#include "client/start_time.h"

#include <algorithm>
#include <ctime>
#include <string_view>

using wall = std::chrono::system_clock;

// in: local time; the day may be one too many for its month
// returns: the moment
static wall::time_point moment_of(std::tm local)
{
    local.tm_isdst = -1;
    return wall::from_time_t(std::mktime(&local));
}

static bool is_date(const std::tm &local)
{
    std::tm normal = local;
    normal.tm_isdst = -1;
    return std::mktime(&normal) != -1 && normal.tm_mon == local.tm_mon &&
           normal.tm_mday == local.tm_mday;
}

// Takes a number of so many digits, or of at least one, from the start of the text.
static bool take_number(std::string_view &text, size_t digits, bool is_padded, int &number)
{
    const size_t found = std::min(text.find_first_not_of("0123456789"), text.size());
    if (found > digits || found == 0 || (is_padded && found < digits)) {
        return false;
    }
    number = 0;
    for (const char digit : text.substr(0, found)) {
        number = number * 10 + (digit - '0');
    }
    text.remove_prefix(found);
    return true;
}

static bool take_any(std::string_view &text, std::string_view characters)
{
    const bool is_there = !text.empty() && characters.find(text.front()) != std::string_view::npos;
    text.remove_prefix(is_there ? 1 : 0);
    return is_there;
}

static bool take_date(std::string_view &text, std::tm &local)
{
    int year = 0;
    int month = 0;
    if (!take_number(text, 4, true, year) || !take_any(text, "-") ||
        !take_number(text, 2, true, month) || !take_any(text, "-") ||
        !take_number(text, 2, true, local.tm_mday) || !take_any(text, " T")) {
        return false;
    }
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    return true;
}

static bool take_time(std::string_view &text, std::tm &local)
{
    local.tm_sec = 0;
    return take_number(text, 2, false, local.tm_hour) && take_any(text, ":") &&
           take_number(text, 2, true, local.tm_min) &&
           (!take_any(text, ":") || take_number(text, 2, true, local.tm_sec)) && text.empty();
}

std::string start_time_read(const std::string &text, wall::time_point now, wall::time_point &moment)
{
    const time_t today = wall::to_time_t(now);
    std::tm local = {};
    localtime_r(&today, &local);
    std::string_view rest = text;
    const bool has_date = text.find('-') != std::string::npos;
    if ((has_date && !take_date(rest, local)) || !take_time(rest, local)) {
        return "--start-at takes HH:MM[:SS], or YYYY-MM-DD HH:MM[:SS], not \"" + text + "\"";
    }
    if (local.tm_hour > 23 || local.tm_min > 59 || local.tm_sec > 59 || !is_date(local)) {
        return "--start-at: there is no such time as \"" + text + "\"";
    }
    wall::time_point wanted = moment_of(local);
    if (wanted <= now && !has_date) {
        local.tm_mday++;
        wanted = moment_of(local);
    }
    if (wanted <= now) {
        return "--start-at: \"" + text + "\" is in the past";
    }
    moment = wanted;
    return "";
}

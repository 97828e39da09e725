#include "client/start_time.h"

#include <ctime>
#include <regex>

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

std::string start_time_read(const std::string &text, wall::time_point now, wall::time_point &moment)
{
    static const std::regex form(R"((?:(\d{4})-(\d\d)-(\d\d)[ T])?(\d{1,2}):(\d\d)(?::(\d\d))?)");
    std::smatch found;
    if (!std::regex_match(text, found, form)) {
        return "--start-at takes HH:MM[:SS], or YYYY-MM-DD HH:MM[:SS], not \"" + text + "\"";
    }
    const auto number = [&found](size_t i) { return found[i].matched ? std::stoi(found[i]) : 0; };
    const time_t today = wall::to_time_t(now);
    std::tm local = {};
    localtime_r(&today, &local);
    local.tm_hour = number(4);
    local.tm_min = number(5);
    local.tm_sec = number(6);
    const bool has_date = found[1].matched;
    if (has_date) {
        local.tm_year = number(1) - 1900;
        local.tm_mon = number(2) - 1;
        local.tm_mday = number(3);
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

#include "mp4mux/calendar.h"

static constexpr int64_t kSecondsPerDay = 86400;
static constexpr int32_t kThursday = 4; // 1970-01-01
static constexpr int32_t kWeekDays = 7;
static constexpr int32_t kMonths = 12;
static constexpr int32_t kFirstYear = 1900; // of a year that is counted from there
static constexpr int32_t kTextBytes = 26;   // of mp4_mux_asc_time

static constexpr char kDayNames[] = "SunMonTueWedThuFriSat";
static constexpr char kMonthNames[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
static constexpr int32_t kMonthDays[kMonths] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
static constexpr int32_t kDaysBefore[kMonths] = {0,   31,  59,  90,  120, 151,
                                                 181, 212, 243, 273, 304, 334};

static bool is_leap_year(int32_t year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

static int32_t days_of_month(int32_t month, bool leap)
{
    return kMonthDays[month] + (leap && month == 1 ? 1 : 0);
}

static int64_t floor_div(int64_t numerator, int64_t denominator)
{
    return numerator / denominator - (numerator % denominator < 0 ? 1 : 0);
}

int64_t mp4_mux_tm_to_time(mp4_mux_tm_t *tm)
{
    if (tm->m_iMonth < 0 || tm->m_iMonth >= kMonths) {
        return -1;
    }
    const bool leap = is_leap_year(tm->m_iYear);
    if (tm->m_iDay > days_of_month(tm->m_iMonth, leap)) {
        return -1;
    }
    const int64_t year_day =
        int64_t{tm->m_iDay} - 1 + kDaysBefore[tm->m_iMonth] + (leap && tm->m_iMonth >= 2 ? 1 : 0);
    tm->m_iYearDay = static_cast<int32_t>(year_day);
    const int64_t year = tm->m_iYear;
    const int64_t days = (year - 1970) * 365 + floor_div(year - 1969, 4) + year_day;
    return days * kSecondsPerDay + int64_t{tm->m_iHour} * 3600 + int64_t{tm->m_iMinute} * 60 +
           tm->m_iSecond;
}

void mp4_mux_to_tm(uint32_t seconds, mp4_mux_tm_t *tm)
{
    const int32_t time_of_day = static_cast<int32_t>(seconds % kSecondsPerDay);
    int32_t days = static_cast<int32_t>(seconds / kSecondsPerDay);
    *tm = {};
    tm->m_iSecond = time_of_day % 60;
    tm->m_iMinute = time_of_day / 60 % 60;
    tm->m_iHour = time_of_day / 3600;
    tm->m_iWeekDay = (days + kThursday) % kWeekDays;

    int32_t year = 1970;
    for (int32_t length = 365; days >= length; length = is_leap_year(year) ? 366 : 365) {
        days -= length;
        year++;
    }
    tm->m_iYear = year - kFirstYear;
    tm->m_iYearDay = days;
    const bool leap = is_leap_year(year);
    while (days >= days_of_month(tm->m_iMonth, leap)) {
        days -= days_of_month(tm->m_iMonth, leap);
        tm->m_iMonth++;
    }
    tm->m_iDay = days + 1;
}

static char *put_name(char *to, const char *names, int32_t index, int32_t count)
{
    for (int32_t i = 0; i < 3; i++) {
        *to++ = index >= 0 && index < count ? names[3 * index + i] : '?';
    }
    return to;
}

// Puts two digits and the character after them.
static char *put_digits(char *to, int32_t value, char after)
{
    const uint32_t two_digits = static_cast<uint32_t>(value) % 100;
    *to++ = static_cast<char>('0' + two_digits / 10);
    *to++ = static_cast<char>('0' + two_digits % 10);
    *to++ = after;
    return to;
}

char *mp4_mux_asc_time(const mp4_mux_tm_t *tm)
{
    static char text[kTextBytes];
    char *to = put_name(text, kDayNames, tm->m_iWeekDay, kWeekDays);
    *to++ = ' ';
    to = put_name(to, kMonthNames, tm->m_iMonth, kMonths);
    *to++ = ' ';
    to = put_digits(to, tm->m_iDay, ' ');
    to = put_digits(to, tm->m_iHour, ':');
    to = put_digits(to, tm->m_iMinute, ':');
    to = put_digits(to, tm->m_iSecond, ' ');
    // The year's last two digits replace the terminator after the first two.
    to = put_digits(to, tm->m_iYear / 100 + kFirstYear / 100, '\0') - 1;
    to = put_digits(to, tm->m_iYear % 100, '\n');
    *to = '\0';
    return text;
}

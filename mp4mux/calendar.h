// Conversions between seconds and dates. The muxer itself calls mp4_mux_tm_to_time only; the others
// are exported for its callers.
#ifndef MP4MUX_CALENDAR_H
#define MP4MUX_CALENDAR_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>

extern "C" {

// Broken-down time in the order of the C library's.
struct mp4_mux_tm_t {
    int32_t m_iSecond;
    int32_t m_iMinute;
    int32_t m_iHour;
    int32_t m_iDay;     // 1 to 31
    int32_t m_iMonth;   // 0 = January
    int32_t m_iYear;    // full year, or years since 1900: see each function
    int32_t m_iWeekDay; // 0 = Sunday
    int32_t m_iYearDay; // 0 = 1 January
    int32_t m_iDaylight;
};

// Converts a date (full year; the weekday is not read) and sets its day of the year.
// returns: seconds since 1970-01-01 00:00:00; -1 for a month out of range or a day after the
//          month's last
MP4_MUX_API int64_t mp4_mux_tm_to_time(mp4_mux_tm_t *tm);

// Breaks down seconds since 1970-01-01 00:00:00; the year counts from 1900.
MP4_MUX_API void mp4_mux_to_tm(uint32_t seconds, mp4_mux_tm_t *tm);

// Writes a date (year counted from 1900) as "Thu Jan 01 00:00:00 1970", line feed, terminator.
// returns: a static buffer of 26 bytes, valid until the next call from any thread
MP4_MUX_API char *mp4_mux_asc_time(const mp4_mux_tm_t *tm);

} // extern "C"

#endif // MP4MUX_CALENDAR_H

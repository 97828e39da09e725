// Small helpers: calendar conversions, strings, and descriptions of streams by wave and bitmap
// headers or by the name of an AAC profile.
#ifndef MP4MUX_MUX_UTIL_H
#define MP4MUX_MUX_UTIL_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>

extern "C" {

struct mp4_mux_t;

// Calendar

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
// returns  seconds since 1970-01-01 00:00:00; -1 for a month out of range or a day beyond the
//          month's last
MP4_MUX_API int64_t mp4_mux_tm_to_time(mp4_mux_tm_t *tm);

// Breaks down seconds since 1970-01-01 00:00:00; the year counts from 1900.
MP4_MUX_API void mp4_mux_to_tm(uint32_t seconds, mp4_mux_tm_t *tm);

// Writes a date (year counted from 1900) as "Thu Jan 01 00:00:00 1970", line feed, terminator.
// returns  a static buffer of 26 bytes, valid until the next call from any thread
MP4_MUX_API char *mp4_mux_asc_time(const mp4_mux_tm_t *tm);

// Strings, as in the C library unless stated

MP4_MUX_API char *mp4_mux_strcat(char *destination, const char *source);
MP4_MUX_API char *mp4_mux_strcpy(char *destination, const char *source);
MP4_MUX_API int32_t mp4_mux_strlen(const char *text);

// returns  the first occurrence or null; the terminator is not found
MP4_MUX_API const char *mp4_mux_strchr(const char *text, int32_t character);

// returns  the first occurrence or null; an empty pattern is found at the start of a text that is
//          not empty, nothing is found in an empty text
MP4_MUX_API const char *mp4_mux_strstr(const char *text, const char *pattern);

// returns  0 when the texts agree up to the end of the shorter one, else the difference of the
//          first characters that differ, as unsigned bytes; an empty text agrees only with another
MP4_MUX_API int32_t mp4_mux_strcmp(const char *a, const char *b);

MP4_MUX_API int32_t mp4_mux_strncmp(const char *a, const char *b, int32_t count);
MP4_MUX_API int32_t mp4_mux_toupper(int32_t character);

// Stream formats

// Description of a stream. Zeroed before its first use.
//
// The record owns its extra bytes only when mp4_mux_aac_build_config allocated them: m_pOwnedExtra
// equals m_pExtra then. The wave and bitmap helpers refer to the caller's bytes, which must outlive
// the record's use of them and which no helper ever frees or resizes.
struct mp4_mux_format_t {
    uint32_t m_uiReserved;
    union {
        int32_t m_iSampleRate;
        int32_t m_iWidth;
    };
    union {
        int32_t m_iBitsPerSample;
        int32_t m_iHeight;
    };
    int32_t m_iChannels;
    uint32_t m_uiFormatTag;    // video: compression code
    void *m_pExtra;            // extra bytes, or null
    int32_t m_iExtraSize;      // their count
    const void *m_pOwnedExtra; // the extra bytes that the record has to free, or null
};

// Fills a record from a wave-format header; extra bytes that it owned are freed before. A header
// of less than 16 bytes changes nothing.
// in       mux: memory callbacks; unused: anything; header: length bytes
// returns  0
MP4_MUX_API int32_t mp4_mux_set_wave_format(mp4_mux_t *mux, void *unused, void *header,
                                            int32_t length, mp4_mux_format_t *format);

// Fills a record from a bitmap-info header; extra bytes that it owned are freed before. Less than
// the header's own size, or than its first 20 bytes, changes nothing.
// returns  0
MP4_MUX_API int32_t mp4_mux_set_bitmap_format(mp4_mux_t *mux, void *unused, void *header,
                                              int32_t length, mp4_mux_format_t *format);

// Builds the AudioSpecificConfig of a profile in the record's extra bytes, from the record's
// sampling rate and channels. A sampling rate below sample_rate implies SBR.
// in       profile: a record whose bytes from 12 on are the profile's name, terminated
// returns  0 or MUX_ERR_MEMORY
// owns     the record owns the bytes, until mp4_mux_clear_data_memory on m_pExtra
// source   ISO/IEC 14496-3, 1.6.2.1
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_aac_build_config(mp4_mux_t *mux, void *unused,
                                                           const uint8_t *profile,
                                                           int32_t sample_rate,
                                                           mp4_mux_format_t *format);

// Allocates size zeroed bytes; a size of 0 leaves the slot as it is.
// out      slot: the memory
// returns  0 or MUX_ERR_MEMORY
// owns     the caller, until mp4_mux_clear_allocated_data
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_get_allocated_data(mp4_mux_t *mux, void *unused,
                                                             uint32_t size, void **slot);

// Free what the slot holds and set it to null.
// returns  0
MP4_MUX_API int32_t mp4_mux_clear_allocated_data(mp4_mux_t *mux, void *unused, void **slot);
MP4_MUX_API int32_t mp4_mux_clear_data_memory(mp4_mux_t *mux, void *unused, void **slot);

} // extern "C"

#endif // MP4MUX_MUX_UTIL_H

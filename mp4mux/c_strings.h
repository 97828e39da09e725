// Strings as in the C library unless stated. Those that the muxer itself does not call are exported
// for its callers.
#ifndef MP4MUX_C_STRINGS_H
#define MP4MUX_C_STRINGS_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>

extern "C" {

MP4_MUX_API char *mp4_mux_strcat(char *destination, const char *source);
MP4_MUX_API char *mp4_mux_strcpy(char *destination, const char *source);
MP4_MUX_API int32_t mp4_mux_strlen(const char *text);

// returns: the first occurrence or null; the terminator is not found
MP4_MUX_API const char *mp4_mux_strchr(const char *text, int32_t character);

// returns: the first occurrence or null; an empty pattern is found at the start of a text that is
//          not empty, nothing is found in an empty text
MP4_MUX_API const char *mp4_mux_strstr(const char *text, const char *pattern);

// returns: 0 when the texts agree up to the end of the shorter one, else the difference of the
//          first characters that differ, as unsigned bytes; an empty text equals only another
MP4_MUX_API int32_t mp4_mux_strcmp(const char *a, const char *b);

MP4_MUX_API int32_t mp4_mux_strncmp(const char *a, const char *b, int32_t count);
MP4_MUX_API int32_t mp4_mux_toupper(int32_t character);

} // extern "C"

#endif // MP4MUX_C_STRINGS_H

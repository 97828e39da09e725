#include "mp4mux/c_strings.h"

char *mp4_mux_strcpy(char *destination, const char *source)
{
    char *to = destination;
    while (*source != '\0') {
        *to++ = *source++;
    }
    *to = '\0';
    return destination;
}

char *mp4_mux_strcat(char *destination, const char *source)
{
    mp4_mux_strcpy(destination + mp4_mux_strlen(destination), source);
    return destination;
}

int32_t mp4_mux_strlen(const char *text)
{
    int32_t length = 0;
    while (text[length] != '\0') {
        length++;
    }
    return length;
}

const char *mp4_mux_strchr(const char *text, int32_t character)
{
    for (; *text != '\0'; text++) {
        if (*text == static_cast<char>(character)) {
            return text;
        }
    }
    return nullptr;
}

const char *mp4_mux_strstr(const char *text, const char *pattern)
{
    const int32_t length = mp4_mux_strlen(pattern);
    for (; *text != '\0'; text++) {
        if (mp4_mux_strncmp(text, pattern, length) == 0) {
            return text;
        }
    }
    return nullptr;
}

static int32_t difference(char a, char b)
{
    return static_cast<uint8_t>(a) - static_cast<uint8_t>(b);
}

int32_t mp4_mux_strcmp(const char *a, const char *b)
{
    if (*a == '\0' || *b == '\0') {
        return difference(*a, *b);
    }
    for (; *a != '\0' && *b != '\0'; a++, b++) {
        if (*a != *b) {
            return difference(*a, *b);
        }
    }
    return 0;
}

int32_t mp4_mux_strncmp(const char *a, const char *b, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        if (a[i] != b[i] || a[i] == '\0') {
            return difference(a[i], b[i]);
        }
    }
    return 0;
}

int32_t mp4_mux_toupper(int32_t character)
{
    return character >= 'a' && character <= 'z' ? character - 'a' + 'A' : character;
}

// The Android log.
#ifndef PLATFORM_ANDROID_LOG_H
#define PLATFORM_ANDROID_LOG_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
    ANDROID_LOG_SILENT = 8
};

// Writes one line with priority and tag.
// returns: the number of characters, or a negative value
int __android_log_print(int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_ANDROID_LOG_H

#include "platform/android_log.h"

#include "platform/host/control_internal.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <pthread.h>

static constexpr int kLogTextMax = 1024; // with the terminator; a longer text is cut

static std::atomic<int> lowest_priority = ANDROID_LOG_WARN;
static pthread_mutex_t lock_log = PTHREAD_MUTEX_INITIALIZER;
static host_log_sink_t log_sink; // under lock_log, with its context
static void *log_sink_context;

static void write_line(int priority, const char *tag, const char *text)
{
    static constexpr char kLetters[] = "??VDIWEFS"; // by priority
    const bool known = priority >= 0 && priority <= ANDROID_LOG_SILENT;
    const size_t length = strlen(text);
    const char *line_end = length != 0 && text[length - 1] == '\n' ? "" : "\n";
    fprintf(stderr, "%c/%s: %s%s", known ? kLetters[priority] : '?', tag, text, line_end);
}

int __android_log_print(int priority, const char *tag, const char *format, ...)
{
    if (priority < lowest_priority) {
        return 0;
    }
    char text[kLogTextMax];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length < 0) {
        return length;
    }

    pthread_mutex_lock(&lock_log);
    if (log_sink != nullptr) {
        log_sink(log_sink_context, priority, tag, text);
    } else {
        write_line(priority, tag, text);
    }
    pthread_mutex_unlock(&lock_log);
    return length < kLogTextMax ? length : kLogTextMax - 1;
}

void host_set_log_level(int priority)
{
    lowest_priority = priority;
}

void host_set_log_sink(host_log_sink_t sink, void *context)
{
    pthread_mutex_lock(&lock_log);
    log_sink = sink;
    log_sink_context = context;
    pthread_mutex_unlock(&lock_log);
}

void host_reset_log(void)
{
    host_set_log_level(ANDROID_LOG_WARN);
    host_set_log_sink(nullptr, nullptr);
}

#include "client/terminal.h"

#include "client/failure.h"
#include "platform/host/host_control.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <unistd.h>

static std::mutex lock; // guards standard error
static std::string shown_progress;

static constexpr const char kClearLine[] = "\r\033[K";

static void write_to_terminal(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void terminal_say(const std::string &line)
{
    const std::lock_guard<std::mutex> guard(lock);
    const std::string clear = shown_progress.empty() ? "" : kClearLine;
    write_to_terminal(clear + line + "\n" + shown_progress);
}

void terminal_print(const std::string &text)
{
    const size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
    if (written != text.size() || std::fflush(stdout) != 0) {
        throw failure(exit_code::output, "the report cannot be written");
    }
}

void terminal_show_progress(const std::string &line)
{
    static const bool is_terminal = isatty(STDERR_FILENO) != 0;
    if (!is_terminal) {
        return;
    }
    const std::lock_guard<std::mutex> guard(lock);
    if (!line.empty() || !shown_progress.empty()) {
        write_to_terminal(kClearLine + line);
    }
    shown_progress = line;
}

// The audio encoder's adapter reports its geometry with the priority of an error.
static bool is_routine(const char *text)
{
    return std::strstr(text, "[ZPL_CORE] [channel:") != nullptr;
}

static void say_component_line(void *with_routine, int, const char *tag, const char *text)
{
    if (with_routine == nullptr && is_routine(text)) {
        return;
    }
    std::string line = std::string(tag) + ": " + text;
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    terminal_say(line);
}

void terminal_follow_component(int verbosity)
{
    static constexpr int kLogDebug = 3, kLogInfo = 4, kLogError = 6;
    static bool with_routine = true;
    host_set_log_level(verbosity == 0 ? kLogError : verbosity == 1 ? kLogInfo : kLogDebug);
    host_set_log_sink(say_component_line, verbosity > 0 ? &with_routine : nullptr);
}

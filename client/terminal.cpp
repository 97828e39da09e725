#include "client/terminal.h"

#include "client/failure.h"
#include "platform/host/host_control.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

static std::mutex lock; // guards standard error
static std::vector<std::string> progress_parts;
static bool is_progress_shown;

static constexpr const char kClearLine[] = "\r\033[K";

static void write_to_terminal(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

// returns: the progress line as wide as the terminal is now; a line that wraps could not be cleared
static std::string progress_line(void)
{
    static constexpr const char kBetweenParts[] = "  ";
    winsize size = {};
    const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    const size_t room = is_known ? size.ws_col - 1u : 79; // the cursor takes the last column
    std::string line;
    for (const std::string &part : progress_parts) {
        const std::string longer = line + (line.empty() ? "" : kBetweenParts) + part;
        if (longer.size() > room && !line.empty()) {
            break;
        }
        line = longer;
    }
    size_t end = std::min(room, line.size());
    while (end > 0 && end < line.size() && (line[end] & 0xC0) == 0x80) { // within a character
        end--;
    }
    return line.substr(0, end);
}

void terminal_say(const std::string &line)
{
    const std::lock_guard<std::mutex> guard(lock);
    const std::string clear = is_progress_shown ? kClearLine : "";
    write_to_terminal(clear + line + "\n" + (is_progress_shown ? progress_line() : ""));
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
    terminal_show_progress_parts({1, line});
}

void terminal_show_progress_parts(std::vector<std::string> parts)
{
    static const bool is_terminal = isatty(STDERR_FILENO) != 0;
    if (!is_terminal) {
        return;
    }
    const std::lock_guard<std::mutex> guard(lock);
    progress_parts = std::move(parts);
    const std::string line = progress_line();
    if (!line.empty() || is_progress_shown) {
        write_to_terminal(kClearLine + line);
    }
    is_progress_shown = !line.empty();
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

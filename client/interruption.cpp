#include "client/interruption.h"

#include "client/failure.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <unistd.h>

static std::mutex lock; // guards the number
// Never destroyed: the listening thread stays until the process ends.
static std::condition_variable &changed = *new std::condition_variable;
static int requested; // the first signal's number

// Without those that whoever started the command, as nohup does, wants to be ignored.
static sigset_t listened_signals(void)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction inherited = {};
        if (sigaction(signal, nullptr, &inherited) == 0 && inherited.sa_handler != SIG_IGN) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

void interruption_block(void)
{
    const sigset_t signals = listened_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A closed pipe and a file-size limit are reported by the calls that meet them.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// The second signal may be there already, and is then not kept waiting for the end.
static void listen(void (*give_up)(void))
{
    const sigset_t signals = listened_signals();
    const timespec at_once = {};
    int first = 0;
    sigwait(&signals, &first);
    int second = sigtimedwait(&signals, nullptr, &at_once);
    if (second < 0) {
        {
            const std::lock_guard<std::mutex> guard(lock);
            requested = first;
        }
        changed.notify_all();
        sigwait(&signals, &second);
    }
    give_up();
    _exit(static_cast<int>(exit_code::given_up) + second);
}

void interruption_listen(void (*give_up)(void))
{
    std::thread(listen, give_up).detach();
}

int interruption_signal(void)
{
    const std::lock_guard<std::mutex> guard(lock);
    return requested;
}

void interruption_check(void)
{
    if (const int signal = interruption_signal()) {
        throw failure(static_cast<exit_code>(static_cast<int>(exit_code::given_up) + signal),
                      "stopped; no file is made");
    }
}

bool interruption_sleep_until(std::chrono::steady_clock::time_point moment)
{
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_until(guard, moment, [] { return requested != 0; });
}

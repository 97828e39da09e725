#include "client/interruption.h"

#include "client/failure.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <unistd.h>

using steady = std::chrono::steady_clock;

static constexpr std::chrono::milliseconds kSameSignal(200);

static std::mutex lock;
// Never destroyed: the listening thread stays until the process ends.
static std::condition_variable &changed = *new std::condition_variable;
static int requested; // the first signal's number; under lock

// A signal that the command inherits as ignored, as from nohup, stays ignored.
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
    // The calls that meet a closed pipe or a file-size limit report it.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// A program that ends this one may signal the process and then its group, as timeout(1) does: the
// same signal within a moment is the first one again.
static int wait_for_second(const sigset_t &signals, int first)
{
    const auto end = steady::now() + kSameSignal;
    for (auto left = kSameSignal; left.count() > 0;
         left = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now())) {
        const timespec patience = {0, static_cast<long>(left.count()) * 1'000'000};
        const int signal = sigtimedwait(&signals, nullptr, &patience);
        if (signal > 0 && signal != first) {
            return signal;
        }
    }
    int second = 0;
    sigwait(&signals, &second);
    return second;
}

// If the second signal is already pending, the first does not begin an orderly end.
static void listen(void (*on_abort)(void))
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
        second = wait_for_second(signals, first);
    }
    on_abort();
    _exit(static_cast<int>(exit_code_plus(exit_code::aborted, second)));
}

void interruption_listen(void (*on_abort)(void))
{
    std::thread(listen, on_abort).detach();
}

int interruption_signal(void)
{
    const std::lock_guard<std::mutex> guard(lock);
    return requested;
}

void interruption_check(void)
{
    if (const int signal = interruption_signal()) {
        throw failure(exit_code_plus(exit_code::aborted, signal), "stopped; no file is made");
    }
}

bool interruption_sleep_until(std::chrono::steady_clock::time_point moment)
{
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_until(guard, moment, [] { return requested != 0; });
}

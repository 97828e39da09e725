#include "client/reconnection.h"

#include "client/interruption.h"
#include "client/programme_feed.h"
#include "client/report/figures.h"

using steady = std::chrono::steady_clock;

static constexpr std::chrono::milliseconds kAttemptInterval(500);

static void open_programme(recording &self, const wait_hook &on_wait)
{
    const record_options &options = self.options;
    self.programme = programme_open({.video = options.video,
                                     .audio = options.audio,
                                     .with_audio = options.with_audio,
                                     .may_change = options.split,
                                     .frame_rate = parse_frame_rate(options.frame_rate),
                                     .pcm_rate = options.pcm_rate,
                                     .start_at = options.start_at,
                                     .on_wait = on_wait});
    recording_warn(self, programme_opening_remarks(*self.programme));
}

void recording_open_programme(recording &self)
{
    open_programme(self, [&self](double silent_s) { return programme_feed_wait(self, silent_s); });
}

bool reconnection_is_wanted(const recording &self)
{
    return self.options.reconnect_us > 0 && interruption_signal() == 0;
}

// returns: false when the input is not back yet
static bool attempt(recording &self, steady::time_point end)
{
    try {
        open_programme(self, [&self, end](double silent_s) {
            const bool is_over = programme_feed_wait(self, silent_s);
            return is_over || (self.programme == nullptr && steady::now() > end);
        });
        return true;
    } catch (const failure &what) {
        if (what.code != exit_code::input) {
            throw;
        }
        return false;
    }
}

bool reconnection_await(recording &self)
{
    const steady::time_point begin = steady::now();
    const steady::time_point end = begin + std::chrono::microseconds(self.options.reconnect_us);
    self.earlier_us += self.sent_us;
    self.sent_us = 0;
    self.programme.reset();
    while (!attempt(self, end)) {
        self.programme.reset();
        if (interruption_sleep_until(steady::now() + kAttemptInterval) || steady::now() > end) {
            return false;
        }
        (void)programme_feed_wait(self, 0);
    }
    const std::chrono::duration<double> away = steady::now() - begin;
    recording_warn(self, {"the input ended, and came back after " + elapsed_text(away.count())});
    return true;
}

#include "client/programme_feed.h"

#include "client/interruption.h"
#include "client/report/figures.h"
#include "client/terminal.h"

#include <algorithm>
#include <cmath>
#include <utility>

using steady = std::chrono::steady_clock;

// Time stamps begin well above 0, which the component takes for "none yet".
static constexpr int64_t kTimeBaseUs = 1'000'000;

static constexpr uint64_t kAudioBytesPerSecond = TDMBREC_AUDIO_BIT_RATE / 8;

static constexpr auto kWatchInterval = std::chrono::milliseconds(200);
static constexpr auto kPauseMax = std::chrono::milliseconds(500); // without a look at the file

static constexpr double kSilenceShownS = 2;

// At least what was sent: the file grows in steps of the component's cache.
static uint64_t recorded_bytes(const recording &self)
{
    const uint64_t sent_us = static_cast<uint64_t>(self.sent_us);
    const uint64_t sent = self.sent_video_bytes + sent_us * kAudioBytesPerSecond / kSecondUs;
    return std::max(storage_recorded_bytes(*self.storage), sent);
}

// The component does not notice that its open file was deleted or moved.
static void check_file(recording &self)
{
    if (storage_has_recording(*self.storage)) {
        self.has_file = true;
    } else if (self.has_file) {
        const std::string trouble = storage_trouble(*self.storage);
        throw failure(exit_code::output, "the recording is gone: " +
                                             (trouble.empty() ? storage_look(*self.storage).place +
                                                                    " was deleted or moved"
                                                              : trouble));
    }
}

static std::string silence_text(double silent_s)
{
    return format_text("nothing arrives for %.0f s", std::floor(silent_s));
}

static void show_progress(const recording &self, steady::time_point now)
{
    const double sent_s = static_cast<double>(self.sent_us) / 1e6;
    const double elapsed_s = std::chrono::duration<double>(now - self.begun).count();
    std::vector<std::string> parts = {"Recording  " + duration_text(sent_s),
                                      size_text(recorded_bytes(self))};
    if (self.silent_s >= kSilenceShownS) {
        parts.push_back(silence_text(self.silent_s));
    }
    parts.push_back(format_text("%.1fx", elapsed_s > 0 ? sent_s / elapsed_s : 0));
    parts.push_back("free " + size_text(storage_free_bytes(*self.storage)));
    terminal_show_progress_parts(std::move(parts));
}

void programme_feed_watch(recording &self)
{
    const steady::time_point now = steady::now();
    if (now - self.shown >= kWatchInterval) {
        self.shown = now;
        check_file(self);
        show_progress(self, now);
    }
}

// An access unit delimiter alone, one picture before the programme: it sets the component's time
// base and gives it nothing to write, so that the first picture already has a time.
static void send_time_base(recording &self)
{
    static const uint8_t delimiter[] = {0, 0, 0, 1, 0x09, 0xF0};
    const int64_t interval_us = video_input_interval_us(*self.programme->video);
    self.lead_us = (interval_us + 999) / 1000 * 1000; // the component counts milliseconds
    il_session_send(*self.component, TDMBREC_PORT_VIDEO, delimiter, kTimeBaseUs,
                    OMX_BUFFERFLAG_ENDOFFRAME);
}

static void send_unit(recording &self, const programme_unit &unit)
{
    const int64_t time_us = kTimeBaseUs + self.lead_us + unit.time_us;
    const bool is_video = unit.kind == unit_kind::video;
    const uint32_t flags = OMX_BUFFERFLAG_ENDOFFRAME | (unit.idr ? OMX_BUFFERFLAG_SYNCFRAME : 0);
    il_session_send(*self.component, is_video ? TDMBREC_PORT_VIDEO : TDMBREC_PORT_AUDIO, unit.bytes,
                    time_us, is_video ? flags : 0);
    self.sent_us = std::max(self.sent_us, unit.time_us);
    self.sent_video_bytes += is_video ? unit.bytes.size() : 0;
}

// Sleeps until the moment; gaps of the programme do not stop the progress line.
// returns: true at once when the user asks for the end
static bool pause_until(recording &self, steady::time_point moment)
{
    steady::time_point next;
    do {
        next = std::min(moment, steady::now() + kPauseMax);
        if (interruption_sleep_until(next)) {
            return true;
        }
        programme_feed_watch(self);
    } while (next < moment);
    return false;
}

// Without a picture there is no file to finish.
static void end_by_user(recording &self, int signal)
{
    if (self.sent_video_bytes == 0) {
        throw failure(exit_code_plus(exit_code::aborted, signal),
                      "stopped before the first picture; no file is made");
    }
    self.summary.ended = "stopped by the user";
}

// Shows what the start of the programme waits for.
static void show_wait(const recording &self)
{
    const auto &start_at = self.options.start_at;
    const std::chrono::duration<double> left =
        start_at ? *start_at - std::chrono::system_clock::now() : std::chrono::seconds(0);
    std::vector<std::string> parts = {left.count() > 0 ? "Waiting for the start in " +
                                                             duration_text(left.count())
                                                       : "Waiting for the first picture"};
    if (self.silent_s >= kSilenceShownS) {
        parts.push_back(silence_text(self.silent_s));
    }
    terminal_show_progress_parts(std::move(parts));
}

bool programme_feed_wait(recording &self, double silent_s)
{
    const int signal = interruption_signal();
    self.silent_s = silent_s;
    if (self.programme == nullptr) { // it is being opened
        if (signal != 0) {
            end_by_user(self, signal);
        }
        show_wait(self);
        return false;
    }
    il_session_flush(*self.component);
    programme_feed_watch(self);
    return signal != 0 || il_session_stop_reason(*self.component).has_value();
}

// A live source also ends because the user or the component asked for it.
static void end_at_the_end(recording &self)
{
    if (const int signal = interruption_signal()) {
        end_by_user(self, signal);
    } else {
        self.summary.ended = "end of the programme";
    }
}

void programme_feed_send(recording &self)
{
    send_time_base(self);
    while (!il_session_stop_reason(*self.component)) {
        const int signal = interruption_signal();
        if (signal != 0 && !programme_stop_live(*self.programme)) {
            end_by_user(self, signal);
            return;
        }
        const std::optional<programme_unit> unit = programme_next(*self.programme);
        self.silent_s = 0;
        if (!unit) {
            end_at_the_end(self);
            return;
        }
        if (self.options.realtime &&
            pause_until(self, self.begun + std::chrono::microseconds(unit->time_us))) {
            continue;
        }
        send_unit(self, *unit);
        if (self.options.realtime) {
            il_session_flush(*self.component);
        }
        programme_feed_watch(self);
    }
}

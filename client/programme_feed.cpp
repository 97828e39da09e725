#include "client/programme_feed.h"

#include "client/interruption.h"
#include "client/report/figures.h"
#include "client/terminal.h"

#include <algorithm>

using steady = std::chrono::steady_clock;

// Time stamps begin well above 0, which the component takes for "none yet".
static constexpr int64_t kTimeBaseUs = 1'000'000;

static constexpr uint64_t kAudioBytesPerSecond = TDMBREC_AUDIO_BIT_RATE / 8;

static constexpr auto kWatchInterval = std::chrono::milliseconds(200);
static constexpr auto kPauseMax = std::chrono::milliseconds(500); // without a look at the file

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

static void show_progress(const recording &self, steady::time_point now)
{
    const double sent_s = static_cast<double>(self.sent_us) / 1e6;
    const double elapsed_s = std::chrono::duration<double>(now - self.begun).count();
    terminal_show_progress("Recording  " + duration_text(sent_s) + "  " +
                           size_text(recorded_bytes(self)) +
                           format_text("  %.1fx", elapsed_s > 0 ? sent_s / elapsed_s : 0) +
                           "  free " + size_text(storage_free_bytes(*self.storage)));
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
    (is_video ? self.sent_pictures : self.sent_sound_frames)++;
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

void programme_feed_send(recording &self)
{
    send_time_base(self);
    while (!il_session_stop_reason(*self.component)) {
        if (const int signal = interruption_signal()) {
            end_by_user(self, signal);
            return;
        }
        const std::optional<programme_unit> unit = programme_next(*self.programme);
        if (!unit) {
            self.summary.ended = "end of the programme";
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

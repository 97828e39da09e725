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

// The longest time without a look at the storage while the sound continues.
static constexpr int64_t kLookIntervalUs = 1'000'000;

static constexpr auto kWatchInterval = std::chrono::milliseconds(200);
static constexpr auto kPauseMax = std::chrono::milliseconds(500); // without a look at the file

static constexpr double kSilenceShownS = 2;

// At least what was sent: the file grows in steps of the component's cache.
static uint64_t recorded_bytes(const recording &self)
{
    const recording_part &part = self.part;
    const uint64_t sent_us =
        static_cast<uint64_t>(std::max<int64_t>(self.sent_us - part.begin_us, 0));
    const uint64_t sent = part.sent_video_bytes + sent_us * kAudioBytesPerSecond / kSecondUs;
    return std::max(storage_recorded_bytes(*part.storage), sent);
}

// The component does not notice that its open file was deleted or moved.
static void check_file(recording &self)
{
    const storage_root &storage = *self.part.storage;
    if (storage_has_recording(storage)) {
        self.part.has_file = true;
    } else if (self.part.has_file) {
        const std::string trouble = storage_trouble(storage);
        throw failure(exit_code::output,
                      "the recording is gone: " +
                          (trouble.empty() ? storage_look(storage).place + " was deleted or moved"
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
    parts.push_back("free " + size_text(storage_free_bytes(*self.part.storage)));
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

// Begins the file at a block of the sound, so that all blocks are those of one long recording. The
// first picture is shown up to one block too early; the others are in step.
//
// An access unit delimiter alone, one picture before, sets the component's time base and gives it
// nothing to write, so that the first picture already has a time.
static void begin_file(recording &self, int64_t picture_us)
{
    static const uint8_t delimiter[] = {0, 0, 0, 1, 0x09, 0xF0};
    const int64_t interval_us = video_input_interval_us(*self.programme->video);
    recording_part &part = self.part;
    part.picture_us = picture_us;
    part.begin_us =
        std::min(picture_us, programme_sound_time_us(*self.programme).value_or(picture_us));
    part.lead_us = (interval_us + 999) / 1000 * 1000; // the component counts milliseconds
    il_session_send(*self.component, TDMBREC_PORT_VIDEO, delimiter, kTimeBaseUs,
                    OMX_BUFFERFLAG_ENDOFFRAME);
}

static void send_picture(recording &self, const programme_unit &unit)
{
    recording_part &part = self.part;
    const bool is_first = part.sent_video_bytes == 0;
    if (is_first) {
        begin_file(self, unit.time_us);
    }
    const int64_t time_us = is_first ? part.begin_us : unit.time_us;
    const uint32_t flags = OMX_BUFFERFLAG_ENDOFFRAME | (unit.idr ? OMX_BUFFERFLAG_SYNCFRAME : 0);
    il_session_send(*self.component, TDMBREC_PORT_VIDEO, unit.bytes,
                    kTimeBaseUs + part.lead_us + time_us - part.begin_us, flags);
    part.sent_video_bytes += unit.bytes.size();
    part.sent_pictures++;
    part.looked_us = time_us - part.begin_us;
}

// The component looks at the storage with the buffers of its ports. Coded sound comes another way,
// and is watched here while the pictures are missing.
static void check_free_space(recording &self, int64_t in_file_us)
{
    if (in_file_us - self.part.looked_us <= kLookIntervalUs) {
        return;
    }
    self.part.looked_us = in_file_us;
    if (storage_free_bytes(*self.part.storage) <= kFreeBytesKept) {
        throw failure(exit_code_plus(exit_code::stop_reason, TDMBREC_STOP_STORAGE_FULL),
                      "the free space is used up (the recorder leaves " +
                          size_text(kFreeBytesKept) + ")");
    }
}

// Each block has its own time, with which the frames have their exact duration in the file; it is
// given at the time of the block before.
static void send_sound(recording &self, const programme_unit &unit)
{
    recording_part &part = self.part;
    part.sent_sound_frames++;
    const int64_t in_file_us = unit.time_us + programme_block_us(*self.programme) - part.begin_us;
    if (self.component->sound != nullptr) {
        check_free_space(self, in_file_us);
        il_session_send_coded(*self.component, unit.bytes, in_file_us / 1000);
    } else {
        il_session_send(*self.component, TDMBREC_PORT_AUDIO, unit.bytes,
                        kTimeBaseUs + part.lead_us + in_file_us, 0);
    }
}

// A file begins with a picture that needs no other. Where the component itself has ended the last
// file, in the middle of a group of pictures, the units up to the next such picture are lost.
static void send_unit(recording &self, const programme_unit &unit)
{
    const bool is_video = unit.kind == unit_kind::video;
    const bool has_begun = self.part.sent_video_bytes > 0;
    const int64_t length_us = is_video ? video_input_interval_us(*self.programme->video)
                                       : programme_block_us(*self.programme);
    if (!has_begun && !unit.idr) {
        loss_account_add(self.programme->losses,
                         {is_video ? loss_track::video : loss_track::audio,
                          is_video ? loss_kind::pictures_unrecorded : loss_kind::sound_unrecorded,
                          unit.time_us, length_us, 1});
    } else if (is_video) {
        send_picture(self, unit);
    } else {
        send_sound(self, unit);
    }
    self.sent_us = std::max(self.sent_us, unit.time_us + length_us);
}

// returns: whether the picture begins the next file
static bool begins_next_file(const recording &self, const programme_unit &unit)
{
    const record_options &options = self.options;
    if (!self.splits || !unit.idr || self.part.sent_video_bytes == 0) {
        return false;
    }
    // A key picture may be placed a little early by the stream's clock.
    const int64_t every_us = std::max<int64_t>(options.split_every_us, 1);
    const int64_t early_us = video_input_interval_us(*self.programme->video) / 2;
    const bool is_time =
        options.split_every_us > 0 &&
        (unit.time_us + early_us) / every_us > (self.part.picture_us + early_us) / every_us;
    const int most_mb = options.split_size_mb > 0 ? options.split_size_mb : kSplitSizeMbMax;
    return unit.new_format || is_time ||
           recorded_bytes(self) >= static_cast<uint64_t>(most_mb) * 1'000'000;
}

// What is to be done with a unit, where the user has limited the recording's duration.
enum class limit_verdict { inside, outside, end };

static limit_verdict judge_limit(const recording &self, const programme_unit &unit)
{
    const int64_t limit_us = self.options.duration_us;
    if (limit_us == 0 || self.earlier_us + unit.time_us < limit_us) {
        return limit_verdict::inside;
    }
    const bool has_audio = programme_sound_time_us(*self.programme).has_value();
    return unit.kind == unit_kind::video && has_audio ? limit_verdict::outside : limit_verdict::end;
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
    if (self.part.sent_video_bytes == 0 && self.summary.earlier.empty()) {
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
        return signal != 0;
    }
    il_session_flush(*self.component);
    programme_feed_watch(self);
    return signal != 0 || il_session_stop_reason(*self.component).has_value();
}

// A live source also ends because the user or the component asked for it.
static feed_end end_at_the_end(recording &self)
{
    if (const int signal = interruption_signal()) {
        end_by_user(self, signal);
        return feed_end::complete;
    }
    self.summary.ended = "end of the programme";
    return feed_end::source;
}

// out: end: why there is no unit
// returns: the next unit inside the recording's duration; nothing at the end
static std::optional<programme_unit> next_unit(recording &self, feed_end &end)
{
    if (self.held) {
        return std::exchange(self.held, std::nullopt);
    }
    for (;;) {
        const std::optional<programme_unit> unit = programme_next(*self.programme);
        self.silent_s = 0;
        if (!unit) {
            end = end_at_the_end(self);
            return std::nullopt;
        }
        switch (judge_limit(self, *unit)) {
        case limit_verdict::inside:
            return unit;
        case limit_verdict::outside:
            break;
        case limit_verdict::end:
            self.summary.ended = "the duration is over";
            end = feed_end::complete;
            return std::nullopt;
        }
    }
}

feed_end programme_feed_send(recording &self)
{
    // What a live input sends is recorded as it arrives.
    const bool is_paced = self.options.realtime && self.programme->video->file->live == nullptr;
    while (!il_session_stop_reason(*self.component)) {
        const int signal = interruption_signal();
        if (signal != 0 && !programme_stop_live(*self.programme)) {
            end_by_user(self, signal);
            return feed_end::complete;
        }
        feed_end end = feed_end::complete;
        const std::optional<programme_unit> unit = next_unit(self, end);
        if (!unit) {
            return end;
        }
        if (begins_next_file(self, *unit)) {
            self.held = unit;
            return feed_end::next_file;
        }
        if (is_paced && pause_until(self, self.begun + std::chrono::microseconds(unit->time_us))) {
            continue;
        }
        send_unit(self, *unit);
        if (is_paced) {
            il_session_flush(*self.component);
        }
        programme_feed_watch(self);
    }
    return feed_end::component;
}

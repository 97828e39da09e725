#include "client/record.h"

#include "client/failure.h"
#include "client/figures.h"
#include "client/interruption.h"
#include "client/player.h"
#include "client/programme_input.h"
#include "client/storage_root.h"
#include "client/summary.h"
#include "client/terminal.h"

#include "platform/omx_il.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <unistd.h>

using steady = std::chrono::steady_clock;

// Time stamps begin well above 0, which the component takes for "none yet".
static constexpr int64_t TIME_BASE_US = 1'000'000;

// The component's figure for a storage that is full, and the bit rate of its audio.
static constexpr uint64_t FREE_BYTES_KEPT = uint64_t{51200} * 1024;
static constexpr uint64_t AUDIO_BYTES_PER_SECOND = 128000 / 8;

// What the signal's thread has to clear away when the user gives up. It keeps the lock until the
// process is gone.
static std::mutex storage_lock;
static storage_root *storage_in_use; // under storage_lock

struct session {
    const record_options &options;
    recording_summary summary;
    std::unique_ptr<storage_root> storage;
    std::unique_ptr<programme_input> programme;
    player_ptr component;
    steady::time_point begun;
    steady::time_point shown; // the progress line
    int64_t lead_us = 0;      // from the time base to the first picture
    int64_t sent_us = 0;      // of the programme
    uint64_t sent_video_bytes = 0;
};

static void use_storage(storage_root *storage)
{
    const std::lock_guard<std::mutex> guard(storage_lock);
    storage_in_use = storage;
}

static void give_up(void)
{
    storage_lock.lock();
    terminal_show_progress("");
    if (storage_in_use != nullptr) {
        storage_discard(*storage_in_use);
    }
    terminal_say("tdmbrec: given up");
}

static void say_remarks(session &self, const std::vector<std::string> &remarks)
{
    for (const std::string &remark : remarks) {
        terminal_say("tdmbrec: warning: " + remark);
        self.summary.remarks.push_back(remark);
    }
}

static exit_code stop_code(uint32_t reason)
{
    return static_cast<exit_code>(static_cast<int>(exit_code::stop_reason) + reason);
}

static void check_free_space(const storage_root &storage)
{
    const uint64_t free_bytes = storage_free_bytes(storage);
    if (free_bytes <= FREE_BYTES_KEPT) {
        throw failure(stop_code(STOP_STORAGE_FULL),
                      "only " + size_text(free_bytes) + " are free for the output; the recorder " +
                          "needs more than " + size_text(FREE_BYTES_KEPT));
    }
}

static void open_all(session &self)
{
    const record_options &options = self.options;
    const std::optional<AVRational> frame_rate = parse_frame_rate(options.frame_rate);
    self.storage = storage_open(options.output, options.force);
    output_place_check_inputs(options.output, {options.video, options.audio});
    self.programme = programme_open(options.video, options.audio, frame_rate);
    say_remarks(self, programme_opening_remarks(*self.programme));
    (void)OMX_Init(); // loads the component while its path still means what the user meant
    use_storage(self.storage.get());
    storage_provide(*self.storage, options.card);
    check_free_space(*self.storage);
    self.component = player_open();
}

// The disk alone would show the size in steps of the component's cache.
static uint64_t recorded_bytes(const session &self)
{
    const uint64_t sent_us = static_cast<uint64_t>(self.sent_us);
    const uint64_t sent = self.sent_video_bytes + sent_us * AUDIO_BYTES_PER_SECOND / 1'000'000;
    return std::max(storage_recorded_bytes(*self.storage), sent);
}

static void show_progress(session &self)
{
    const steady::time_point now = steady::now();
    if (now - self.shown < std::chrono::milliseconds(200)) {
        return;
    }
    self.shown = now;
    const double seconds = static_cast<double>(self.sent_us) / 1e6;
    const double elapsed = std::chrono::duration<double>(now - self.begun).count();
    char speed[32] = "";
    std::snprintf(speed, sizeof speed, "%.1fx", elapsed > 0 ? seconds / elapsed : 0);
    terminal_show_progress("Recording  " + duration_text(seconds) + "  " +
                           size_text(recorded_bytes(self)) + "  " + speed + "  free " +
                           size_text(storage_free_bytes(*self.storage)));
}

// A delimiter alone, one picture ahead of the programme: it gives the component its time base and
// nothing to write, so that the first picture is already one with a time.
static void send_time_base(session &self)
{
    static const uint8_t delimiter[] = {0, 0, 0, 1, 0x09, 0xF0};
    const int64_t interval_us = video_input_interval_us(*self.programme->video);
    self.lead_us = (interval_us + 999) / 1000 * 1000; // the component counts milliseconds
    player_send(*self.component, PORT_VIDEO, delimiter, TIME_BASE_US, OMX_BUFFERFLAG_ENDOFFRAME);
}

static void send_unit(session &self, const programme_unit &unit)
{
    const int64_t time_us = TIME_BASE_US + self.lead_us + unit.time_us;
    const bool video = unit.kind == unit_kind::video;
    const uint32_t flags = OMX_BUFFERFLAG_ENDOFFRAME | (unit.idr ? OMX_BUFFERFLAG_SYNCFRAME : 0);
    player_send(*self.component, video ? PORT_VIDEO : PORT_AUDIO, unit.bytes, time_us,
                video ? flags : 0);
    self.sent_us = std::max(self.sent_us, unit.time_us);
    self.sent_video_bytes += video ? unit.bytes.size() : 0;
}

// Sleeps until the moment, with the progress line kept fresh across gaps of the programme.
// returns true at once when the user asks for the end.
static bool pause_until(session &self, steady::time_point moment)
{
    steady::time_point next;
    do {
        next = std::min(moment, steady::now() + std::chrono::milliseconds(500));
        if (interruption_sleep_until(next)) {
            return true;
        }
        show_progress(self);
    } while (next < moment);
    return false;
}

// Sends the programme until it, the component or the user ends it.
static void send_programme(session &self)
{
    send_time_base(self);
    while (!player_stopped(*self.component)) {
        if (const int signal = interruption_signal()) {
            if (self.sent_video_bytes == 0) {
                throw failure(
                    static_cast<exit_code>(static_cast<int>(exit_code::given_up) + signal),
                    "stopped before the first picture; no file is made");
            }
            self.summary.ended = "stopped by the user";
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
            player_flush(*self.component);
        }
        show_progress(self);
    }
}

static const char *reason_text(uint32_t reason)
{
    switch (reason) {
    case STOP_STORAGE:
        return "the storage is not usable";
    case STOP_STORAGE_FULL:
        return "the free space is used up (the recorder leaves 52.4 MB)";
    case STOP_OPEN_FAILED:
        return "the file could not be begun";
    case STOP_WRITE_FAILED:
        return "writing the file failed";
    case STOP_SIZE_LIMIT:
        return "the file reached its size limit";
    case STOP_DESTROYED:
        return "the component was destroyed";
    default:
        return "the component gave an unknown reason";
    }
}

static void note_failure(session &self, const failure &what)
{
    if (self.summary.error.empty()) {
        self.summary.error = what.what();
        self.summary.status = static_cast<int>(what.code);
    }
}

// Reads back what the recording left; the component tells a reason, not whether the file is whole.
static void read_recording(session &self)
{
    const int file = storage_open_recording(*self.storage);
    if (file < 0) {
        return;
    }
    std::string fault;
    try {
        self.summary.file = finished_file_read(file);
    } catch (const failure &what) {
        fault = what.what();
    }
    close(file);
    if (self.summary.file && self.summary.file->video.frames == 0) {
        const std::vector<std::string> &faults = self.summary.file->faults;
        fault = faults.empty() ? "" : "the finished file has no picture: " + faults.front();
        self.summary.file.reset();
    }
    if (!fault.empty()) { // there may be more in it than can be read here
        note_failure(self, failure(exit_code::component,
                                   fault + "; it stays as " + storage_keep(*self.storage)));
    }
}

// Ends the recording and gives the file its name. A failure of the input has been noted before.
static void finish(session &self)
{
    self.component->on_wait = nullptr;
    terminal_show_progress("Finishing ...");
    const uint32_t reason = player_stop(*self.component);
    self.summary.stop_reason = reason;
    player_close(std::move(self.component));
    if (reason != STOP_REQUEST) {
        self.summary.ended = reason_text(reason);
        note_failure(self, failure(stop_code(reason), self.summary.ended));
    }
    read_recording(self);
    if (self.summary.file) {
        storage_publish(*self.storage);
        use_storage(nullptr);
        say_remarks(self, finished_file_remarks(*self.summary.file));
    } else {
        note_failure(self, failure(exit_code::component,
                                   "the recorder component could not finish the file"));
    }
}

static void run(session &self)
{
    open_all(self);
    self.begun = steady::now();
    self.component->on_wait = [&self] { show_progress(self); };
    player_start(*self.component, storage_component_path(*self.storage),
                 static_cast<unsigned>(self.programme->audio->rate));
    try {
        send_programme(self);
    } catch (const failure &broken) {
        if (broken.code == exit_code::component || self.sent_video_bytes == 0) {
            throw;
        }
        // What came before is worth keeping; the exit code tells that it is not all.
        note_failure(self, broken);
        self.summary.ended = "the input could not be recorded further";
    }
    finish(self);
}

static void close_all(session &self)
{
    terminal_show_progress("");
    self.component.reset();
    use_storage(nullptr);
    self.storage.reset();
    (void)OMX_Deinit();
}

static void report(session &self)
{
    const recording_summary &summary = self.summary;
    if (self.programme != nullptr) {
        say_remarks(self, programme_closing_remarks(*self.programme));
    }
    if (!summary.error.empty()) {
        terminal_say("tdmbrec: " + summary.error);
    }
    const std::string text = self.options.json ? summary_json(summary)
                             : summary.file    ? summary_text(summary)
                                               : "";
    try {
        terminal_print(text);
    } catch (const failure &what) {
        terminal_say(std::string("tdmbrec: ") + what.what());
        note_failure(self, what);
    }
}

static void fail(session &self, const failure &what)
{
    self.summary.file.reset();
    note_failure(self, what);
    self.summary.ended = "failed";
}

int record(const record_options &options)
{
    interruption_block();
    storage_isolate();
    interruption_listen(give_up);
    terminal_follow_component(options.verbosity);
    session self = {.options = options};
    self.summary.output = options.output;
    self.begun = steady::now();
    try {
        run(self);
    } catch (const failure &what) {
        fail(self, what);
    } catch (const std::exception &what) {
        fail(self, failure(exit_code::component, what.what()));
    }
    self.summary.elapsed_s = std::chrono::duration<double>(steady::now() - self.begun).count();
    close_all(self);
    report(self);
    return self.summary.status;
}

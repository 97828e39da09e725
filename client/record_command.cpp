#include "client/record_command.h"

#include "client/failure.h"
#include "client/il_session.h"
#include "client/input/programme_input.h"
#include "client/interruption.h"
#include "client/report/figures.h"
#include "client/storage_root.h"
#include "client/summary.h"
#include "client/terminal.h"
#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <unistd.h>

using steady = std::chrono::steady_clock;

// Time stamps begin well above 0, which the component takes for "none yet".
static constexpr int64_t kTimeBaseUs = 1'000'000;

// The component's figure for a storage that is full, and the bit rate of its audio.
static constexpr uint64_t kFreeBytesKept = uint64_t{TDMBREC_LEAST_FREE_KIB} * 1024;
static constexpr uint64_t kAudioBytesPerSecond = TDMBREC_AUDIO_BIT_RATE / 8;

// What the signal's thread has to clear away when the user gives up. It keeps the lock until the
// process is gone, so that the recording does not move while it says where it stays.
static std::mutex storage_lock;
static storage_root *storage_in_use; // under storage_lock

struct session {
    const record_options &options;
    recording_summary summary;
    std::unique_ptr<storage_root> storage;
    std::unique_ptr<programme_input> programme;
    il_session_ptr component;
    steady::time_point begun;
    steady::time_point shown; // the progress line
    bool has_file = false;    // the recording's file has been seen
    bool is_published = false;
    int64_t lead_us = 0; // from the time base to the first picture
    int64_t sent_us = 0; // of the programme
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
    std::string kept;
    if (storage_in_use != nullptr) {
        const unfinished_recording left = storage_look(*storage_in_use);
        if (left.file != recording_state::empty) {
            kept = "; " + kept_text(left);
        }
        storage_discard(*storage_in_use);
    }
    terminal_say("tdmbrec: aborted" + kept);
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
    return exit_code_plus(exit_code::stop_reason, static_cast<int>(reason));
}

static void check_free_space(const storage_root &storage)
{
    const uint64_t free_bytes = storage_free_bytes(storage);
    if (free_bytes <= kFreeBytesKept) {
        throw failure(stop_code(TDMBREC_STOP_STORAGE_FULL),
                      "only " + size_text(free_bytes) + " are free for the output; the recorder " +
                          "needs more than " + size_text(kFreeBytesKept));
    }
}

// Another recording to the same output stops this one when it is under way, and is named when it
// was left.
static void look_for_others(session &self)
{
    std::vector<std::string> remarks;
    unfinished_recordings_clear(self.options.output);
    for (const unfinished_recording &other : unfinished_recordings_of(self.options.output)) {
        const std::string text = unfinished_recording_text(self.options.output, other);
        if (other.folder == folder_state::in_use) {
            throw failure(exit_code::output, text);
        }
        remarks.push_back(text);
    }
    say_remarks(self, remarks);
}

static void open_all(session &self)
{
    const record_options &options = self.options;
    const std::optional<AVRational> frame_rate = parse_frame_rate(options.frame_rate);
    self.storage = storage_open(options.output, options.force);
    output_place_check_inputs(options.output, {options.video, options.audio});
    look_for_others(self);
    self.programme = programme_open(options.video, options.audio, frame_rate);
    say_remarks(self, programme_opening_remarks(*self.programme));
    (void)OMX_Init(); // loads the component while its path still means what the user meant
    use_storage(self.storage.get());
    storage_provide(*self.storage, options.card);
    check_free_space(*self.storage);
    self.component = il_session_open();
}

// The disk alone would show the size in steps of the component's cache.
static uint64_t recorded_bytes(const session &self)
{
    const uint64_t sent_us = static_cast<uint64_t>(self.sent_us);
    const uint64_t sent = self.sent_video_bytes + sent_us * kAudioBytesPerSecond / 1'000'000;
    return std::max(storage_recorded_bytes(*self.storage), sent);
}

// throws `failure` when somebody has taken the file away: the component would write on into
// nothing.
static void check_file(session &self)
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

static void show_progress(session &self, steady::time_point now)
{
    const double seconds = static_cast<double>(self.sent_us) / 1e6;
    const double elapsed = std::chrono::duration<double>(now - self.begun).count();
    char speed[32] = "";
    std::snprintf(speed, sizeof speed, "%.1fx", elapsed > 0 ? seconds / elapsed : 0);
    terminal_show_progress("Recording  " + duration_text(seconds) + "  " +
                           size_text(recorded_bytes(self)) + "  " + speed + "  free " +
                           size_text(storage_free_bytes(*self.storage)));
}

// From time to time, while the programme is sent.
static void look_around(session &self)
{
    const steady::time_point now = steady::now();
    if (now - self.shown >= std::chrono::milliseconds(200)) {
        self.shown = now;
        check_file(self);
        show_progress(self, now);
    }
}

// A delimiter alone, one picture ahead of the programme: it gives the component its time base and
// nothing to write, so that the first picture is already one with a time.
static void send_time_base(session &self)
{
    static const uint8_t delimiter[] = {0, 0, 0, 1, 0x09, 0xF0};
    const int64_t interval_us = video_input_interval_us(*self.programme->video);
    self.lead_us = (interval_us + 999) / 1000 * 1000; // the component counts milliseconds
    il_session_send(*self.component, TDMBREC_PORT_VIDEO, delimiter, kTimeBaseUs,
                    OMX_BUFFERFLAG_ENDOFFRAME);
}

static void send_unit(session &self, const programme_unit &unit)
{
    const int64_t time_us = kTimeBaseUs + self.lead_us + unit.time_us;
    const bool video = unit.kind == unit_kind::video;
    const uint32_t flags = OMX_BUFFERFLAG_ENDOFFRAME | (unit.idr ? OMX_BUFFERFLAG_SYNCFRAME : 0);
    il_session_send(*self.component, video ? TDMBREC_PORT_VIDEO : TDMBREC_PORT_AUDIO, unit.bytes,
                    time_us, video ? flags : 0);
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
        look_around(self);
    } while (next < moment);
    return false;
}

// Sends the programme until it, the component or the user ends it.
static void send_programme(session &self)
{
    send_time_base(self);
    while (!il_session_stopped(*self.component)) {
        if (const int signal = interruption_signal()) {
            if (self.sent_video_bytes == 0) {
                throw failure(exit_code_plus(exit_code::aborted, signal),
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
            il_session_flush(*self.component);
        }
        look_around(self);
    }
}

static const char *reason_text(uint32_t reason)
{
    switch (reason) {
    case TDMBREC_STOP_STORAGE:
        return "the storage is not usable";
    case TDMBREC_STOP_STORAGE_FULL:
        return "the free space is used up (the recorder leaves 52.4 MB)";
    case TDMBREC_STOP_MUX_OPEN:
        return "the file could not be opened";
    case TDMBREC_STOP_WRITE:
        return "writing the file failed";
    case TDMBREC_STOP_SIZE_LIMIT:
        return "the file reached its size limit";
    case TDMBREC_STOP_DESTROYED:
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

// The same with what is to be seen of the storage.
static void note_storage_failure(session &self, exit_code code, const std::string &what)
{
    const std::string trouble = storage_trouble(*self.storage);
    note_failure(self, failure(code, what + (trouble.empty() ? "" : ": " + trouble)));
}

// The storage is asked only where it may be the cause.
static void note_stop(session &self, uint32_t reason)
{
    if (reason == TDMBREC_STOP_STORAGE || reason == TDMBREC_STOP_MUX_OPEN ||
        reason == TDMBREC_STOP_WRITE) {
        note_storage_failure(self, stop_code(reason), self.summary.ended);
    } else {
        note_failure(self, failure(stop_code(reason), self.summary.ended));
    }
}

// Reads back what the recording left; the component tells a reason, not whether the file is whole.
static void read_recording(session &self)
{
    const int file = storage_open_recording(*self.storage);
    if (file < 0) {
        return;
    }
    try {
        self.summary.file = finished_file_read(file);
    } catch (const failure &what) {
        note_failure(self, what);
    }
    close(file);
    if (self.summary.file && self.summary.file->video.frames == 0) {
        const std::vector<std::string> &faults = self.summary.file->faults;
        if (!faults.empty()) { // there may be more in it than can be read here
            note_failure(self, failure(exit_code::kept,
                                       "the finished file has no picture: " + faults.front()));
        }
        self.summary.file.reset();
    }
}

// Ends the recording. What fails is noted; the component is gone afterwards, or left alone.
static void end_recording(session &self)
{
    self.component->on_wait = nullptr;
    terminal_show_progress("Finishing ...");
    try {
        const uint32_t reason = il_session_stop(*self.component);
        self.summary.stop_reason = reason;
        if (reason != TDMBREC_STOP_CLIENT) {
            self.summary.ended = reason_text(reason);
            note_stop(self, reason);
        }
        il_session_close(std::move(self.component));
    } catch (const failure &what) {
        note_failure(self, what);
        self.summary.ended = "the component failed";
    }
    self.component.reset(); // its end is the recording's, which it may finish even now
}

static void publish(session &self)
{
    storage_settle(*self.storage);
    const std::lock_guard<std::mutex> guard(storage_lock);
    storage_publish(*self.storage);
    storage_in_use = nullptr;
    self.is_published = true;
}

// Ends the recording and gives the file its name. A failure of the input has been noted before.
static void finish(session &self)
{
    end_recording(self);
    if (il_session_left_alone()) { // the file may be written to even now
        return;
    }
    read_recording(self);
    if (!self.summary.file) {
        note_storage_failure(self, exit_code::component,
                             "the recorder component could not finish the file");
        return;
    }
    publish(self);
    say_remarks(self, finished_file_remarks(*self.summary.file));
    if (storage_is_out_of_sight(*self.storage)) {
        note_failure(self, failure(exit_code::output, self.summary.output +
                                                          " is finished, but its directory was "
                                                          "moved, or its storage unmounted"));
    }
}

static void run(session &self)
{
    open_all(self);
    self.begun = steady::now();
    self.component->on_wait = [&self] { look_around(self); };
    il_session_start(*self.component, storage_component_path(*self.storage),
                     static_cast<unsigned>(self.programme->audio->rate));
    try {
        send_programme(self);
    } catch (const failure &broken) {
        if (self.sent_video_bytes == 0) {
            throw;
        }
        // What came before is worth keeping; the exit code tells that it is not all.
        note_failure(self, broken);
        self.summary.ended = broken.code == exit_code::component ? "the component failed"
                             : broken.code == exit_code::output
                                 ? "the recording is gone"
                                 : "the rest of the input could not be recorded";
    }
    finish(self);
}

// Whatever has ended the recording: what there is of it stays, and the user has to know where.
static std::string look_for_rest(session &self)
{
    if (self.storage == nullptr || self.is_published || self.storage->record_name.empty()) {
        return "";
    }
    const unfinished_recording left = storage_look(*self.storage);
    if (left.file == recording_state::empty) {
        return "";
    }
    self.summary.file.reset();
    self.summary.kept = left.place;
    self.summary.status = static_cast<int>(exit_code::kept);
    return kept_text(left);
}

static void report(session &self, const std::string &rest)
{
    const recording_summary &summary = self.summary;
    if (self.programme != nullptr) {
        say_remarks(self, programme_closing_remarks(*self.programme));
    }
    for (const std::string &sentence : {summary.error, rest}) {
        if (!sentence.empty()) {
            terminal_say("tdmbrec: " + sentence);
        }
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

// The storage goes last: until then, the user who gives up can read where the recording is.
static void close_all(session &self)
{
    if (il_session_left_alone()) {
        storage_hide();
        _exit(self.summary.status); // nothing may wait for the component, nor take from under it
    }
    use_storage(nullptr);
    self.storage.reset();
    (void)OMX_Deinit();
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
    self.component.reset();
    self.summary.elapsed_s = std::chrono::duration<double>(steady::now() - self.begun).count();
    terminal_show_progress("");
    report(self, look_for_rest(self));
    close_all(self);
    return self.summary.status;
}

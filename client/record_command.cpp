#include "client/record_command.h"

#include "client/input/live_io.h"
#include "client/interruption.h"
#include "client/programme_feed.h"
#include "client/reconnection.h"
#include "client/recording.h"
#include "client/report/figures.h"
#include "client/terminal.h"
#include "platform/host/host_control.h"
#include "platform/omx_il.h"

#include <cmath>
#include <functional>
#include <mutex>
#include <unistd.h>
#include <utility>

using steady = std::chrono::steady_clock;

// Guards the storage against the listening thread, which clears it when the user aborts. That
// thread keeps the lock until the process ends, so that the file stays where the message says.
static std::mutex storage_lock;
static storage_root *storage_in_use; // under storage_lock

static void use_storage(storage_root *storage)
{
    const std::lock_guard<std::mutex> guard(storage_lock);
    storage_in_use = storage;
}

static void abort_recording(void)
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

static void check_free_space(const storage_root &storage)
{
    const uint64_t free_bytes = storage_free_bytes(storage);
    if (free_bytes <= kFreeBytesKept) {
        throw failure(exit_code_plus(exit_code::stop_reason, TDMBREC_STOP_STORAGE_FULL),
                      "only " + size_text(free_bytes) + " are free for the output; the recorder " +
                          "needs more than " + size_text(kFreeBytesKept));
    }
}

// A recording to the same output that is under way stops this one. One that was left unfinished is
// reported.
static void look_for_others(recording &self)
{
    std::vector<std::string> remarks;
    unfinished_recordings_clear(self.summary.output);
    for (const unfinished_recording &other : unfinished_recordings_of(self.summary.output)) {
        const std::string text = unfinished_recording_text(self.summary.output, other);
        if (other.folder == folder_state::in_use) {
            throw failure(exit_code::output, text);
        }
        remarks.push_back(text);
    }
    recording_warn(self, remarks);
}

// in: checkpoint_s: at most kCheckpointMaxS; the shortest that is not 0 is one millisecond
static void set_checkpoint(double checkpoint_s)
{
    const long checkpoint_ms = checkpoint_s > 0 ? std::lround(std::ceil(checkpoint_s * 1000)) : 0;
    host_set_property(TDMBREC_CHECKPOINT_PROPERTY, std::to_string(checkpoint_ms).c_str());
}

// Takes the next name for the recording's file, and checks it.
static void open_output(recording &self)
{
    self.part = {};
    self.summary.output = output_series_next(self.outputs);
    self.part.storage = storage_open(self.summary.output, self.options.force);
}

// Shows the component the storage for the file.
static void provide_storage(recording &self)
{
    storage_root &storage = *self.part.storage;
    use_storage(&storage);
    storage_provide(storage, self.options.card);
    check_free_space(storage);
}

// One encoder serves all files of a programme.
static void open_encoder(recording &self)
{
    self.component->sound = self.splits && self.programme->audio != nullptr
                                ? coded_sound_open(programme_sample_rate(*self.programme))
                                : nullptr;
}

static void open_all(recording &self)
{
    const record_options &options = self.options;
    open_output(self);
    output_place_check_inputs(self.summary.output, {options.video, options.audio});
    look_for_others(self);
    recording_open_programme(self);
    if (options.start_at && self.outputs.has_times) { // the file begins now
        self.outputs.names.clear();
        open_output(self);
    }
    (void)OMX_Init(); // loads the component before the storage can hide its path
    provide_storage(self);
    set_checkpoint(options.checkpoint_s);
    self.component = il_session_open();
    self.splits = self.programme->video->may_change;
    open_encoder(self);
    self.component->on_wait = [&self] { programme_feed_watch(self); };
}

// Reads the file back: the component reports a reason, not whether the file is complete.
static void read_recording(recording &self)
{
    const int file = storage_open_recording(*self.part.storage);
    if (file < 0) {
        return;
    }
    try {
        self.summary.file = finished_file_read(file);
    } catch (const failure &what) {
        recording_note_failure(self, what);
    }
    close(file);
    if (self.summary.file && self.summary.file->video.frames == 0) {
        const std::vector<std::string> &faults = self.summary.file->faults;
        if (!faults.empty()) { // the file may hold more than this reader finds
            recording_note_failure(
                self,
                failure(exit_code::kept, "the finished file has no picture: " + faults.front()));
        }
        self.summary.file.reset();
    }
}

// Ends the recording at the component, which is released after the last file, or left alone if it
// does not answer.
// returns: whether the recording can continue in another file
static bool end_recording(recording &self, bool continues)
{
    terminal_show_progress("Finishing ...");
    const std::function<void()> on_wait = std::exchange(self.component->on_wait, nullptr);
    try {
        const bool is_asked = !il_session_stop_reason(*self.component);
        uint32_t reason = il_session_stop(*self.component);
        if (is_asked && self.part.sent_video_bytes == 0 && !self.summary.earlier.empty()) {
            reason = TDMBREC_STOP_CLIENT; // without a file, the component blames the storage
        }
        const bool is_full = self.splits && reason == TDMBREC_STOP_SIZE_LIMIT;
        self.summary.stop_reason = reason;
        if (is_full || (continues && reason == TDMBREC_STOP_CLIENT)) {
            self.component->on_wait = on_wait;
            return true;
        }
        if (reason != TDMBREC_STOP_CLIENT) {
            recording_note_stop(self, reason);
        }
        il_session_close(std::move(self.component));
    } catch (const failure &what) {
        recording_note_failure(self, what);
        self.summary.ended = "the component failed";
    }
    self.component.reset(); // after a failure, its release may still finish the file
    return false;
}

static void publish(recording &self)
{
    storage_root &storage = *self.part.storage;
    storage_settle(storage);
    const std::lock_guard<std::mutex> guard(storage_lock);
    storage_publish(storage);
    storage_in_use = nullptr;
    self.part.is_published = true;
}

// Finishes the file.
// returns: whether the recording can continue in another one
static bool finish(recording &self, bool continues)
{
    const bool can_continue = end_recording(self, continues);
    if (il_session_left_alone()) { // it may still write to the file
        return false;
    }
    if (self.part.sent_video_bytes == 0 && !self.summary.earlier.empty()) {
        return false; // the recording has ended before this file began
    }
    read_recording(self);
    if (!self.summary.file) {
        recording_note_storage_failure(self, exit_code::component,
                                       "the recorder component could not finish the file");
        return false;
    }
    publish(self);
    recording_warn(self, finished_file_remarks(*self.summary.file));
    if (storage_is_out_of_sight(*self.part.storage)) {
        recording_note_failure(self,
                               failure(exit_code::output, self.summary.output +
                                                              " is finished, but its directory was "
                                                              "moved, or its storage unmounted"));
        return false;
    }
    return can_continue;
}

// The part before a failure is worth keeping; the exit code says that it is not all.
static void note_broken_feed(recording &self, const failure &broken)
{
    recording_note_failure(self, broken);
    self.summary.ended = broken.code == exit_code::component ? "the component failed"
                         : broken.code == exit_code::output
                             ? "the recording is gone"
                             : "the rest of the input could not be recorded";
}

// Keeps the finished file for the summary.
static void keep_file(recording &self)
{
    recording_summary &summary = self.summary;
    recording_account_for_losses(self);
    summary.earlier.push_back(
        {summary.output, summary.begin_s, *summary.file, std::move(summary.losses)});
    summary.file.reset();
    summary.losses = {};
}

// Waits for the input to come back.
// returns: whether the recording continues
static bool reconnect(recording &self)
{
    const std::optional<failure> broken_off = std::exchange(self.broken_off, std::nullopt);
    keep_file(self);
    if (reconnection_await(self)) {
        if (broken_off) {
            recording_warn(self, {broken_off->what()});
        }
        open_encoder(self);
        return true;
    }
    if (broken_off) {
        note_broken_feed(self, *broken_off);
    }
    (void)end_recording(self, false);
    return false;
}

// Records one file.
// returns: whether the recording continues in another one
static bool record_file(recording &self)
{
    il_session_start(*self.component, storage_component_path(*self.part.storage),
                     static_cast<unsigned>(programme_sample_rate(*self.programme)));
    feed_end end = feed_end::complete;
    try {
        end = programme_feed_send(self);
    } catch (const failure &broken) {
        if (self.part.sent_video_bytes == 0 && self.summary.earlier.empty()) {
            throw;
        }
        if (broken.code == exit_code::input && reconnection_is_wanted(self)) {
            self.broken_off = broken;
            end = feed_end::source;
        } else {
            note_broken_feed(self, broken);
        }
    }
    const bool may_come_back = end == feed_end::source && reconnection_is_wanted(self);
    self.summary.begin_s = static_cast<double>(self.earlier_us + self.part.begin_us) / 1e6;
    const bool can_continue = finish(self, end == feed_end::next_file || may_come_back);
    if (can_continue && may_come_back) {
        return reconnect(self);
    }
    if (can_continue) {
        keep_file(self);
    }
    return can_continue;
}

static void open_next_file(recording &self)
{
    open_output(self);
    look_for_others(self);
    provide_storage(self);
}

static void run(recording &self)
{
    open_all(self);
    self.begun = steady::now();
    while (record_file(self)) {
        open_next_file(self);
    }
}

// returns: the sentence on a recording that did not become the output; empty if there is none
static std::string find_kept(recording &self)
{
    if (self.part.storage == nullptr || self.part.is_published ||
        self.part.storage->record_name.empty()) {
        return "";
    }
    const unfinished_recording left = storage_look(*self.part.storage);
    if (left.file == recording_state::empty) {
        return "";
    }
    self.summary.file.reset();
    self.summary.kept = left.place;
    self.summary.status = static_cast<int>(exit_code::kept);
    return kept_text(left);
}

static void warn_of_losses(recording &self)
{
    bool is_complete = loss_account_is_complete(self.summary.losses);
    for (const recorded_file &one : self.summary.earlier) {
        is_complete = is_complete && loss_account_is_complete(one.losses);
    }
    if (!is_complete) {
        recording_warn(self, {"parts of the programme are missing or damaged (--json lists them)"});
    }
}

static void report(recording &self, const std::string &kept)
{
    const recording_summary &summary = self.summary;
    if (self.programme != nullptr) { // else its losses are those of the earlier files
        recording_account_for_losses(self);
    }
    warn_of_losses(self);
    for (const std::string &sentence : {summary.error, kept}) {
        if (!sentence.empty()) {
            terminal_say("tdmbrec: " + sentence);
        }
    }
    const std::string text = self.options.json                          ? summary_json(summary)
                             : summary.file || !summary.earlier.empty() ? summary_text(summary)
                                                                        : "";
    try {
        terminal_print(text);
    } catch (const failure &what) {
        terminal_say(std::string("tdmbrec: ") + what.what());
        recording_note_failure(self, what);
    }
}

// The storage is released last: until then, an abort can report where the recording is.
static void close_all(recording &self)
{
    if (il_session_left_alone()) {
        storage_hide();
        _exit(self.summary.status); // the component's threads may still run and write
    }
    use_storage(nullptr);
    self.part.storage.reset();
    (void)OMX_Deinit();
}

static void fail(recording &self, const failure &what)
{
    self.summary.file.reset();
    recording_note_failure(self, what);
    self.summary.ended = "failed";
}

int record_run(const record_options &options)
{
    interruption_block();
    storage_isolate();
    interruption_listen(abort_recording);
    terminal_follow_component(options.verbosity);
    recording self = {.options = options,
                      .outputs = {.pattern = options.output,
                                  .has_times = options.split.value_or(live_io_is(options.video)) &&
                                               options.output.find('%') != std::string::npos,
                                  .force = options.force}};
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
    report(self, find_kept(self));
    close_all(self);
    return self.summary.status;
}

#include "client/record_command.h"

#include "client/interruption.h"
#include "client/programme_feed.h"
#include "client/recording.h"
#include "client/report/figures.h"
#include "client/terminal.h"
#include "platform/host/host_control.h"
#include "platform/omx_il.h"

#include <cmath>
#include <mutex>
#include <unistd.h>

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
    unfinished_recordings_clear(self.options.output);
    for (const unfinished_recording &other : unfinished_recordings_of(self.options.output)) {
        const std::string text = unfinished_recording_text(self.options.output, other);
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

static void open_all(recording &self)
{
    const record_options &options = self.options;
    const std::optional<AVRational> frame_rate = parse_frame_rate(options.frame_rate);
    self.storage = storage_open(options.output, options.force);
    output_place_check_inputs(options.output, {options.video, options.audio});
    look_for_others(self);
    self.programme = programme_open(options.video, options.audio, frame_rate);
    recording_warn(self, programme_opening_remarks(*self.programme));
    (void)OMX_Init(); // loads the component before the storage can hide its path
    use_storage(self.storage.get());
    storage_provide(*self.storage, options.card);
    check_free_space(*self.storage);
    set_checkpoint(options.checkpoint_s);
    self.component = il_session_open();
}

// Reads the file back: the component reports a reason, not whether the file is complete.
static void read_recording(recording &self)
{
    const int file = storage_open_recording(*self.storage);
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

// Ends the recording at the component, which is then released, or left alone if it does not answer.
static void end_recording(recording &self)
{
    self.component->on_wait = nullptr;
    terminal_show_progress("Finishing ...");
    try {
        const uint32_t reason = il_session_stop(*self.component);
        self.summary.stop_reason = reason;
        if (reason != TDMBREC_STOP_CLIENT) {
            recording_note_stop(self, reason);
        }
        il_session_close(std::move(self.component));
    } catch (const failure &what) {
        recording_note_failure(self, what);
        self.summary.ended = "the component failed";
    }
    self.component.reset(); // after a failure, its release may still finish the file
}

static void publish(recording &self)
{
    storage_settle(*self.storage);
    const std::lock_guard<std::mutex> guard(storage_lock);
    storage_publish(*self.storage);
    storage_in_use = nullptr;
    self.is_published = true;
}

static void finish(recording &self)
{
    end_recording(self);
    if (il_session_left_alone()) { // it may still write to the file
        return;
    }
    read_recording(self);
    if (!self.summary.file) {
        recording_note_storage_failure(self, exit_code::component,
                                       "the recorder component could not finish the file");
        return;
    }
    publish(self);
    recording_warn(self, finished_file_remarks(*self.summary.file));
    if (storage_is_out_of_sight(*self.storage)) {
        recording_note_failure(self,
                               failure(exit_code::output, self.summary.output +
                                                              " is finished, but its directory was "
                                                              "moved, or its storage unmounted"));
    }
}

static void run(recording &self)
{
    open_all(self);
    self.begun = steady::now();
    self.component->on_wait = [&self] { programme_feed_watch(self); };
    il_session_start(*self.component, storage_component_path(*self.storage),
                     static_cast<unsigned>(self.programme->audio->rate));
    try {
        programme_feed_send(self);
    } catch (const failure &broken) {
        if (self.sent_video_bytes == 0) {
            throw;
        }
        // The part before the failure is worth keeping; the exit code says that it is not all.
        recording_note_failure(self, broken);
        self.summary.ended = broken.code == exit_code::component ? "the component failed"
                             : broken.code == exit_code::output
                                 ? "the recording is gone"
                                 : "the rest of the input could not be recorded";
    }
    finish(self);
}

// returns: the sentence on a recording that did not become the output; empty if there is none
static std::string find_kept(recording &self)
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

static void report(recording &self, const std::string &kept)
{
    const recording_summary &summary = self.summary;
    if (self.programme != nullptr) {
        recording_account_for_losses(self);
    }
    for (const std::string &sentence : {summary.error, kept}) {
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
    self.storage.reset();
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
    recording self = {.options = options};
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

#include "client/recover_job.h"

#include "client/failure.h"
#include "client/input/shell_word.h"
#include "client/input/video_input.h"
#include "client/interruption.h"
#include "client/mux_file.h"
#include "client/recover_configuration.h"
#include "client/recover_file.h"
#include "client/report/figures.h"
#include "client/terminal.h"
#include "client/work_folder.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

// Pictures that are longer together are not tried.
static constexpr int64_t kTrialBytesMax = 64 << 20;

// A length of four bytes and the header of a NAL unit.
static constexpr int64_t kLengthBytes = 4;
static constexpr int64_t kFrameBeginBytes = kLengthBytes + 1;

struct frame_place {
    int64_t offset;
    int32_t bytes;
    bool is_key;
};

struct recover_job {
    const recover_options &options;
    const broken_recording &broken;
    recover_outcome &outcome;
    recover_file media;
    recover_file journal;
    std::array<recover_file, RECOVERY_TABLE_COUNT> tables;
    recovery_source_t journal_source = {};
    std::array<recovery_source_t, RECOVERY_TABLE_COUNT> table_sources = {};
    recovery_input_t input = {};
    std::vector<frame_place> trial;           // of the pictures that a configuration is tried with
    std::optional<found_configuration> found; // where the recording has none
    std::exception_ptr thrown;                // by a callback
    uint32_t last_ms = 0;                     // of the last frame
    uint8_t end_begin = 0;                    // the first byte after the last whole frame
    bool has_cut_picture = false;             // there
};

static recover_job &job_of(void *context)
{
    return *static_cast<recover_job *>(context);
}

static int32_t show_progress(void *context, int64_t done_bytes, int64_t all_bytes)
{
    const recover_job &self = job_of(context);
    if (all_bytes > 0) {
        terminal_show_progress(
            "Recovering  " + self.broken.path +
            format_text("  %d %%", static_cast<int>(100 * done_bytes / all_bytes)));
    }
    return interruption_signal();
}

static void note_frame(void *context, const recovery_frame_t *frame)
{
    recover_job &self = job_of(context);
    self.last_ms = frame->time_ms;
    if (frame->type != MUX_TYPE_VIDEO) {
        return;
    }
    const bool is_key = (frame->flags & MUX_FRAME_KEY) != 0;
    if (is_key && !self.trial.empty() && !self.trial.front().is_key) {
        self.trial.clear(); // a decoder begins with a key frame
    }
    if (self.trial.size() < kTrialPictures) {
        self.trial.push_back({frame->offset, frame->size, is_key});
    }
}

// returns: whether NAL units follow one another up to the end of the file, where the picture ends
static bool is_cut_picture(const recovery_source_t &media, const recover_hole &end)
{
    static constexpr int kUnitsMax = 1000; // most of a picture
    int64_t at = 0;
    for (int unit = 0; unit < kUnitsMax && at < end.bytes; unit++) {
        uint8_t begin[kFrameBeginBytes] = {};
        if (at > 0 && end.bytes - at < kFrameBeginBytes) {
            return true;
        }
        (void)media.read_at(media.context, end.offset + at, begin, kFrameBeginBytes);
        const int64_t unit_bytes = begin[1] << 16 | begin[2] << 8 | begin[3]; // less than 16 MiB
        const int nal_unit_type = begin[4] & 0x1F;
        if (begin[0] != 0 || unit_bytes == 0 || (begin[4] & 0x80) != 0 || nal_unit_type == 0 ||
            nal_unit_type > 9) {
            return false;
        }
        at += kLengthBytes + unit_bytes;
    }
    return at >= end.bytes;
}

static void note_hole(void *context, const recovery_hole_t *hole)
{
    recover_job &self = job_of(context);
    const recover_hole place = {hole->offset, hole->bytes, self.last_ms};
    if (hole->is_end != 0) {
        self.outcome.end = place;
        // In place, these bytes will be cut off.
        const recovery_source_t &media = self.input.media;
        (void)media.read_at(media.context, hole->offset, &self.end_begin, sizeof self.end_begin);
        self.has_cut_picture = is_cut_picture(media, place);
    } else {
        self.outcome.holes.push_back(place);
    }
}

static picture_list read_trial(recover_job &self)
{
    picture_list pictures;
    const recovery_source_t source = recover_file_source(self.media);
    int64_t bytes = 0;
    for (const frame_place &place : self.trial) {
        bytes += place.bytes;
        if (bytes > kTrialBytesMax) {
            break;
        }
        std::vector<uint8_t> picture(static_cast<size_t>(place.bytes));
        if (source.read_at(source.context, place.offset, picture.data(), place.bytes) ==
            place.bytes) {
            pictures.push_back(std::move(picture));
        }
    }
    return pictures;
}

// A recording without a journal and without parameter sets in band gets them from elsewhere.
static int32_t configure(void *context, const recovery_frame_t *pictures, int32_t count,
                         const uint8_t **configuration)
{
    recover_job &self = job_of(context);
    for (int32_t i = 0; i < count; i++) {
        note_frame(context, pictures + i);
    }
    try {
        terminal_show_progress("");
        interruption_check();
        self.found = recover_configuration_find(self.options, self.broken, read_trial(self),
                                                self.outcome.remarks);
    } catch (...) { // no exception passes through the library
        self.thrown = std::current_exception();
        return -1;
    }
    self.trial.clear();
    if (!self.found) {
        return 0;
    }
    self.outcome.configuration = self.found->source;
    self.outcome.is_guess = self.found->is_guess;
    *configuration = self.found->bytes.data();
    return static_cast<int32_t>(self.found->bytes.size());
}

static void open_media(recover_job &self)
{
    const std::string &path = self.broken.path;
    const auto refuse_if = [&](bool is_in_use) {
        if (is_in_use) {
            throw failure(exit_code::input,
                          path + ": is being recorded, or recovered by another command, now");
        }
    };
    refuse_if(self.broken.is_in_use);
    if (!recover_file_open(self.media, path, self.options.in_place)) {
        const std::string reason = errno == EINVAL ? "is not a regular file"
                                   : errno == EACCES
                                       ? "cannot be opened: it may belong to another user"
                                       : std::strerror(errno);
        throw failure(exit_code::input, path + ": " + reason);
    }
    refuse_if(!recover_file_lock(self.media, self.options.in_place));
    self.input.media = recover_file_source(self.media);
}

// A file beside the recording that cannot be read is left out.
static const recovery_source_t *open_beside(recover_job &self, recover_file &file,
                                            recovery_source_t &source, const std::string &path)
{
    if (path.empty()) {
        return nullptr;
    }
    if (!recover_file_open(file, path, false)) {
        self.outcome.remarks.push_back(path + ": " + std::strerror(errno) + "; not used");
        return nullptr;
    }
    source = recover_file_source(file);
    return &source;
}

static void open_all(recover_job &self)
{
    open_media(self);
    self.input.journal = open_beside(self, self.journal, self.journal_source, self.broken.journal);
    for (size_t i = 0; i < self.tables.size(); i++) {
        self.input.tables[i] =
            open_beside(self, self.tables[i], self.table_sources[i], self.broken.tables[i]);
    }
    if (const auto rate = parse_frame_rate(self.options.frame_rate)) {
        self.input.frame_rate_num = static_cast<uint32_t>(rate->num);
        self.input.frame_rate_den = static_cast<uint32_t>(rate->den);
    }
    self.input.sample_rate = self.options.sample_rate;
    self.input.context = &self;
    self.input.progress = show_progress;
    self.input.frame = note_frame;
    self.input.hole = note_hole;
    self.input.configure = configure;
}

// returns: the path of the file itself, which a link in the folder may lead to
static std::string file_path(const recover_job &self)
{
    std::error_code error;
    const std::string &path = self.broken.path;
    const fs::path target =
        fs::is_symlink(path, error) ? fs::canonical(path, error) : fs::path(path);
    return error ? path : target.string();
}

static std::string finished_text(const recover_job &self)
{
    std::string text = self.broken.path + ": nothing to recover: the file is finished";
    if (!self.broken.left.empty()) {
        text += "; to move it to its place: mv " + shell_word(file_path(self)) + " " +
                shell_word(recover_output_of(self.broken));
    }
    return text + (self.broken.journal.empty()
                       ? ""
                       : "; " + self.broken.journal + " is not needed any more");
}

static std::string no_configuration_text(const recover_job &self)
{
    return self.broken.path +
           ": the pictures have no decoder configuration, and the recording has no " +
           (self.broken.journal.empty() ? "journal" : "journal that can be used") +
           ". It can come from another recording of the same channel (--like MP4), from "
           "parameter sets (--parameter-sets FILE)" +
           (self.options.guess ? "" : ", or be guessed (--guess)");
}

[[noreturn]] static void fail_to_write(const recover_job &self, const std::string &reason)
{
    const bool is_in_place = self.options.in_place;
    const bool is_full = !is_in_place && reason == std::strerror(ENOSPC);
    throw failure(exit_code::output,
                  (is_in_place ? self.broken.path : self.outcome.output) + ": " + reason +
                      (is_full ? "; --in-place finishes the recording itself" : ""));
}

// in: output_error: the system's reason for a failed write
[[noreturn]] static void fail(const recover_job &self, int32_t result,
                              const std::string &output_error)
{
    const std::string &path = self.broken.path;
    const std::string journal_flaw = recover_journal_flaw(self.outcome.report);
    if (!journal_flaw.empty()) {
        self.outcome.remarks.push_back(self.broken.journal + ": " + journal_flaw);
    }
    std::string message = self.outcome.report.message;
    if (!message.empty()) { // it follows the path
        message[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(message[0])));
    }
    const std::string reason = self.media.error != 0 ? std::strerror(self.media.error) : message;
    switch (result) {
    case RECOVERY_ERR_CANCELLED:
        throw failure(exit_code_plus(exit_code::aborted, interruption_signal()),
                      self.options.in_place ? "stopped; nothing is changed"
                                            : "stopped; no file is made");
    case RECOVERY_ERR_READ:
        throw failure(exit_code::input, path + ": cannot be read: " + reason);
    case RECOVERY_ERR_WRITE:
        fail_to_write(self, output_error.empty() ? reason : output_error);
    case RECOVERY_ERR_WHOLE:
        throw failure(exit_code::nothing, finished_text(self));
    case RECOVERY_ERR_CONFIGURATION:
        throw failure(exit_code::unsupported, no_configuration_text(self));
    case RECOVERY_ERR_FORMAT:
    case RECOVERY_ERR_NOTHING:
        throw failure(exit_code::input, path + ": " + message);
    case RECOVERY_ERR_HOLES:
        throw failure(exit_code::unsupported,
                      path + ": has holes, and can only be recovered to another file: "
                             "leave out --in-place");
    default:
        throw failure(exit_code::component, path + ": " + message);
    }
}

// The caches of the recorder.
struct lent_memory {
    std::vector<uint8_t> cache, close;
    mp4_mux_closemem_t close_memory = {};
};

static mp4_mux_init_t make_init(lent_memory &memory, const std::string &scratch)
{
    const mux_memory sizes;
    memory.cache.resize(static_cast<size_t>(sizes.output) + static_cast<size_t>(sizes.video) +
                        static_cast<size_t>(sizes.audio));
    memory.close.resize(static_cast<size_t>(sizes.close));
    memory.close_memory = {.m_pMem = memory.close.data(), .m_iSize = sizes.close};
    mp4_mux_init_t init = {};
    mux_file_set_callbacks(init);
    init.m_pCacheMem = memory.cache.data();
    init.m_iCacheSize = sizes.output;
    init.m_iVideoCacheSize = sizes.video;
    init.m_iAudioCacheSize = sizes.audio;
    init.m_pszTempDir = scratch.c_str();
    return init;
}

// returns: the result
// throws: what a callback has thrown
static int32_t end_run(recover_job &self, int32_t result)
{
    terminal_show_progress("");
    if (self.thrown) {
        std::rethrow_exception(self.thrown);
    }
    if (result == RECOVERY_ERR_CONFIGURATION) { // where is the damage, all the same
        recovery_report_t ignored;
        (void)recovery_scan(&self.input, &ignored);
        terminal_show_progress("");
        interruption_check();
    }
    return result;
}

static int32_t write_file(recover_job &self, const work_folder &folder)
{
    lent_memory memory;
    const std::string scratch = work_folder_path(folder, "");
    std::string path = work_folder_path(folder, kWorkMovie);
    mp4_mux_init_t init = make_init(memory, scratch);
    init.m_pOutput = path.data();
    return end_run(self,
                   recovery_write(&self.input, &init, &memory.close_memory, &self.outcome.report));
}

static int32_t finish_in_place(recover_job &self, const work_folder &folder)
{
    lent_memory memory;
    const std::string scratch = work_folder_path(folder, "");
    const mp4_mux_init_t init = make_init(memory, scratch);
    const recovery_target_t target = recover_file_target(self.media);
    return end_run(self, recovery_in_place(&self.input, &target, &init, &memory.close_memory,
                                           &self.outcome.report));
}

static void read_back(recover_job &self, int file)
{
    self.outcome.file = file >= 0 ? finished_file_read(file) : std::nullopt;
    if (!self.outcome.file) {
        throw failure(exit_code::component, "the recovered file is not valid");
    }
    for (const std::string &remark : finished_file_remarks(*self.outcome.file)) {
        self.outcome.remarks.push_back(remark);
    }
}

static void recover_to_output(recover_job &self)
{
    const bool is_named = !self.options.output.empty();
    const std::string output = is_named ? self.options.output : recover_output_of(self.broken);
    self.outcome.output = output;
    // A name that was chosen here belongs to no file that the user wants to have replaced.
    const std::unique_ptr<work_folder> folder =
        work_folder_make(output, is_named && self.options.force);
    output_place_check_inputs(output, {self.broken.path, self.broken.journal, self.options.like,
                                       self.options.parameter_sets});
    const int32_t result = write_file(self, *folder);
    if (result != RECOVERY_DONE) {
        fail(self, result, mux_file_write_error());
    }
    work_folder_sync(*folder, kWorkMovie);
    const int file = openat(folder->folder.descriptor, kWorkMovie, O_RDONLY | O_CLOEXEC);
    read_back(self, file);
    close(file);
    work_folder_publish(*folder, kWorkMovie);
    (void)fsync(folder->place->directory); // not every file system can
}

// The file is on the storage: its journal is not needed any more. One that was not used may be that
// of another recording.
static void remove_journal(const recover_job &self)
{
    if (self.outcome.report.journal != RECOVERY_JOURNAL_USED) {
        return;
    }
    const fs::path path = self.broken.journal; // or a link to it
    std::error_code ignored;
    fs::remove(fs::canonical(path, ignored), ignored);
    fs::remove(path, ignored);
    const std::string parent = path.has_parent_path() ? path.parent_path().string() : ".";
    const int directory = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        (void)fsync(directory);
        close(directory);
    }
}

// The name is that of the media file, so that the next recovery removes what a killed one has left.
static std::string scratch_path(const recover_job &self)
{
    std::error_code error;
    const fs::path directory = fs::temp_directory_path(error);
    if (error) {
        throw failure(exit_code::output,
                      "the folder for temporary files (TMPDIR): " + error.message());
    }
    struct stat status = {};
    (void)fstat(self.media.descriptor, &status);
    return (directory / format_text("tdmbrec-%llx-%llx",
                                    static_cast<unsigned long long>(status.st_dev),
                                    static_cast<unsigned long long>(status.st_ino)))
        .string();
}

// The muxer's scratch files are elsewhere: the storage of the recording may be full.
static void recover_in_place(recover_job &self)
{
    self.outcome.is_in_place = true;
    const std::unique_ptr<work_folder> folder = work_folder_make(scratch_path(self), true);
    const int32_t result = finish_in_place(self, *folder);
    if (result != RECOVERY_DONE) {
        const int error = self.media.error;
        fail(self, result, error != 0 ? std::strerror(error) : mux_file_write_error());
    }
    self.outcome.output = file_path(self);
    read_back(self, self.media.descriptor);
    remove_journal(self);
}

// returns: what the cut frame was
static std::string end_kind(const recover_job &self)
{
    static constexpr int64_t kChannelBytesMax = 6144 / 8; // of an AAC frame
    if (self.has_cut_picture) {
        return "a picture";
    }
    const int id_syn_ele = self.end_begin >> 5; // 0 a single channel, 1 a pair
    const int channels = self.outcome.report.channels;
    const bool is_sound = id_syn_ele == channels - 1 && self.end_begin != 0 &&
                          self.outcome.end->bytes < kChannelBytesMax * channels;
    return is_sound ? "a sound frame" : "data of no frame";
}

static void complete_outcome(recover_job &self)
{
    recover_outcome &outcome = self.outcome;
    if (outcome.end) {
        outcome.end_kind = end_kind(self);
    }
    if (outcome.report.configuration_from == RECOVERY_FROM_JOURNAL) {
        outcome.configuration = "the journal";
    } else if (outcome.report.configuration_from == RECOVERY_FROM_MEDIA) {
        outcome.configuration = "the pictures themselves";
        const trial_verdict verdict = picture_trial_run({}, read_trial(self));
        if (!is_accepted(verdict)) {
            outcome.remarks.push_back("the decoder complains about the first pictures with the "
                                      "parameter sets in them");
        }
    }
    const int flaws = (outcome.report.holes != 0 ? kRecoveredWithHoles : 0) |
                      (outcome.is_guess ? kRecoveredWithGuess : 0);
    outcome.status = flaws != 0 ? static_cast<int>(exit_code_plus(exit_code::recovered, flaws)) : 0;
}

void recover_job_run(const recover_options &options, const broken_recording &broken,
                     recover_outcome &outcome)
{
    recover_job self = {.options = options, .broken = broken, .outcome = outcome};
    open_all(self);
    if (options.in_place) {
        recover_in_place(self);
    } else {
        recover_to_output(self);
    }
    complete_outcome(self);
}

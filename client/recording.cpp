#include "client/recording.h"

#include "client/report/figures.h"
#include "client/terminal.h"

#include <limits>

void recording_warn(recording &self, const std::vector<std::string> &remarks)
{
    for (const std::string &remark : remarks) {
        terminal_say("tdmbrec: warning: " + remark);
        self.summary.remarks.push_back(remark);
    }
}

void recording_note_failure(recording &self, const failure &what)
{
    if (self.summary.error.empty()) {
        self.summary.error = what.what();
        self.summary.status = static_cast<int>(what.code);
    }
}

void recording_note_storage_failure(recording &self, exit_code code, const std::string &sentence)
{
    const std::string trouble = storage_trouble(*self.part.storage);
    recording_note_failure(self, failure(code, sentence + (trouble.empty() ? "" : ": " + trouble)));
}

// in: the frames of a track that were sent and that the file holds, and the time of one
static void compare_frames(recording &self, loss_kind kind, uint64_t sent, uint64_t held,
                           int64_t frame_us)
{
    if (held < sent) {
        const bool is_video = kind == loss_kind::pictures_unrecorded;
        loss_account_add(self.summary.losses, {is_video ? loss_track::video : loss_track::audio,
                                               kind, self.sent_us - self.part.begin_us,
                                               static_cast<int64_t>(sent - held) * frame_us,
                                               static_cast<unsigned>(sent - held)});
    }
}

static void compare_with_file(recording &self)
{
    // A component that ends the recording itself leaves out what is on its way.
    const std::optional<uint32_t> reason = self.summary.stop_reason;
    const bool continues = self.splits && reason == TDMBREC_STOP_SIZE_LIMIT;
    if (!self.summary.file || (reason != TDMBREC_STOP_CLIENT && !continues)) {
        return;
    }
    const file_summary &file = *self.summary.file;
    compare_frames(self, loss_kind::pictures_unrecorded, self.part.sent_pictures, file.video.frames,
                   video_input_interval_us(*self.programme->video));
    compare_frames(self, loss_kind::sound_unrecorded, self.part.sent_sound_frames,
                   file.audio.frames, programme_block_us(*self.programme));
}

void recording_account_for_losses(recording &self)
{
    loss_account &losses = self.programme->losses;
    const int64_t begin_us = self.part.begin_us;
    const int64_t end_us = self.held ? self.held->time_us : std::numeric_limits<int64_t>::max();
    const bool is_all = begin_us == 0 && !self.held;
    self.summary.losses = is_all ? losses : loss_account_of(losses, begin_us, end_us);
    compare_with_file(self);
    if (self.held) {
        loss_account_forget(losses, end_us);
    }
}

static std::string reason_text(uint32_t reason)
{
    switch (reason) {
    case TDMBREC_STOP_STORAGE:
        return "the storage is not usable";
    case TDMBREC_STOP_STORAGE_FULL:
        return "the free space is used up (the recorder leaves " + size_text(kFreeBytesKept) + ")";
    case TDMBREC_STOP_MUX_OPEN:
        return "the file could not be opened";
    case TDMBREC_STOP_WRITE:
        return "writing the file failed";
    case TDMBREC_STOP_SIZE_LIMIT:
        return "the file has passed its size limit";
    case TDMBREC_STOP_DESTROYED:
        return "the component was destroyed";
    default:
        return "the component gave an unknown reason";
    }
}

void recording_note_stop(recording &self, uint32_t reason)
{
    const exit_code code = exit_code_plus(exit_code::stop_reason, static_cast<int>(reason));
    self.summary.ended = reason_text(reason);
    const bool is_of_storage = reason == TDMBREC_STOP_STORAGE || reason == TDMBREC_STOP_MUX_OPEN ||
                               reason == TDMBREC_STOP_WRITE;
    if (is_of_storage) {
        recording_note_storage_failure(self, code, self.summary.ended);
    } else {
        recording_note_failure(self, failure(code, self.summary.ended));
    }
}

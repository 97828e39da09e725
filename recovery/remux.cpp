#include "recovery/remux.h"

#include "recovery/frame_passes.h"
#include "recovery/recorder_settings.h"

#include <cstdio>

namespace {

struct remuxer {
    recovery_job *job;
    void *handle;
};

} // namespace

static int32_t fail_to_write(remuxer *mux, int32_t code)
{
    recovery_report_t *const report = mux->job->report;
    mp4_mux_error_t error = {};
    // Without a context it fetches nothing.
    (void)QVR_MP4_MUX(MUX_GET_LAST_ERROR, &mux->handle, nullptr, &error);
    report->mux_error = code;
    snprintf(report->message, sizeof(report->message), "The output cannot be written (%s)",
             error.m_pszMessage != nullptr ? error.m_pszMessage : "no memory");
    return RECOVERY_ERR_WRITE;
}

static int32_t ask_for_configuration(recovery_job *job, mp4_mux_input_t *input)
{
    const recovery_input_t *const caller = job->input;
    const int32_t bytes =
        caller->configure != nullptr
            ? caller->configure(caller->context, job->first_pictures, job->first_picture_count,
                                &input->m_pbyVideoPrivate)
            : 0;
    if (bytes < 0) {
        return fail_recovery(job, RECOVERY_ERR_CANCELLED, "The recovery was cancelled");
    }
    if (bytes == 0) {
        return fail_recovery(job, RECOVERY_ERR_CONFIGURATION,
                             "The recording does not contain the parameter sets of its pictures");
    }
    input->m_iVideoPrivateSize = bytes;
    job->report->configuration_from = RECOVERY_FROM_CALLER;
    return RECOVERY_DONE;
}

// Gives the muxer the configuration: the first picture, which may have had it, can be lost.
static int32_t use_configuration(recovery_job *job, mp4_mux_input_t *input)
{
    switch (job->report->configuration_from) {
    case RECOVERY_FROM_JOURNAL:
        input->m_pbyVideoPrivate = job->settings.video_configuration;
        input->m_iVideoPrivateSize = static_cast<int32_t>(job->settings.video_configuration_bytes);
        return RECOVERY_DONE;
    case RECOVERY_FROM_CALLER:
        input->m_pbyVideoPrivate = job->input->configuration;
        input->m_iVideoPrivateSize = job->input->configuration_bytes;
        return RECOVERY_DONE;
    case RECOVERY_FROM_MEDIA:
        break;
    default:
        return ask_for_configuration(job, input);
    }
    picture_sets sets = {};
    const uint8_t *const bytes = show_part(&job->media, job->sets_offset, job->sets_bytes);
    if (bytes == nullptr || !find_picture_sets(bytes, job->sets_bytes, &sets)) {
        return fail_to_read(job);
    }
    job->record = make_avc_record(&sets, &input->m_iVideoPrivateSize);
    input->m_pbyVideoPrivate = job->record;
    return job->record != nullptr ? RECOVERY_DONE
                                  : fail_recovery(job, RECOVERY_ERR_MEMORY, kNoMemory);
}

static int32_t open_muxer(remuxer *mux, const mp4_mux_init_t *output)
{
    recovery_job *const job = mux->job;
    const journal_settings_t *const settings = &job->settings;
    mp4_mux_init_t init = *output;
    init.m_uiStreamFlags = settings->stream_flags;
    init.m_uiOptions = (settings->options & ~uint32_t{MUX_OPTION_OUTPUT_IS_HANDLE}) |
                       (output->m_uiOptions & MUX_OPTION_OUTPUT_IS_HANDLE);
    init.m_pfnAppendFile = nullptr; // it changes the bytes of the file
    mp4_mux_input_t input = settings->input;
    if (settings->audio_configuration_bytes != 0) {
        input.m_pbyAudioPrivate = settings->audio_configuration;
        input.m_iAudioPrivateSize = static_cast<int32_t>(settings->audio_configuration_bytes);
    }
    const int32_t result = use_configuration(job, &input);
    if (result != RECOVERY_DONE) {
        return result;
    }
    const int32_t opened = QVR_MP4_MUX(MUX_OPEN, &mux->handle, &init, &input);
    return opened < 0 ? fail_to_write(mux, opened) : RECOVERY_DONE;
}

static int32_t put_bytes(remuxer *mux, const recovery_frame_t *frame, const uint8_t *bytes)
{
    mp4_mux_putstream_t put = {.m_pbyData = bytes,
                               .m_iDataSize = frame->size,
                               .m_iType = frame->type,
                               .m_uiTimeStamp = frame->time_ms,
                               .m_uiTimeStamp2 = frame->time_ms,
                               .m_uiFlags = frame->flags};
    const int32_t result = QVR_MP4_MUX(MUX_PUTFRAME, &mux->handle, &put, nullptr);
    return result < 0 ? fail_to_write(mux, result) : RECOVERY_DONE;
}

static int32_t put_frame(void *context, const recovery_frame_t *frame)
{
    remuxer *const mux = static_cast<remuxer *>(context);
    const uint8_t *const bytes = show_part(&mux->job->media, frame->offset, frame->size);
    if (bytes == nullptr && frame->size > 0) {
        return fail_to_read(mux->job);
    }
    return put_bytes(mux, frame, bytes);
}

// A recording with pictures but no sound ends with a frame of silence.
static int32_t put_silence(remuxer *mux)
{
    const recovery_job *const job = mux->job;
    if (job->report->sounds > 0 || (job->settings.stream_flags & MUX_STREAM_AUDIO) == 0) {
        return RECOVERY_DONE;
    }
    const recovery_frame_t frame = {.type = MUX_TYPE_AUDIO,
                                    .flags = MUX_FRAME_KEY,
                                    .offset = job->last_end,
                                    .size = sizeof(kSilentFrame),
                                    .time_ms = 0,
                                    .is_journaled = 0};
    return put_bytes(mux, &frame, kSilentFrame);
}

// Closes the muxer, which keeps its memory and files after a close that fails.
static int32_t close_muxer(remuxer *mux, mp4_mux_closemem_t *close_memory)
{
    if (mux->handle == nullptr) {
        return RECOVERY_DONE;
    }
    const int32_t closed = QVR_MP4_MUX(MUX_CLOSE, &mux->handle, close_memory, nullptr);
    if (closed >= 0) {
        return RECOVERY_DONE;
    }
    const int32_t result = fail_to_write(mux, closed);
    (void)QVR_MP4_MUX(MUX_CLOSE, &mux->handle, nullptr, nullptr);
    return result;
}

int32_t remux_frames(recovery_job *job, const mp4_mux_init_t *output,
                     mp4_mux_closemem_t *close_memory, bool *is_discarded)
{
    remuxer mux = {.job = job};
    int32_t result = open_muxer(&mux, output);
    if (result == RECOVERY_DONE) {
        result = visit_frames(job, &mux, put_frame);
    }
    if (result == RECOVERY_DONE) {
        result = put_silence(&mux);
    }
    if (result != RECOVERY_DONE) { // the first failure is the one to report
        const recovery_report_t failed = *job->report;
        if (is_discarded != nullptr) {
            *is_discarded = true;
        }
        (void)close_muxer(&mux, nullptr);
        *job->report = failed;
        return result;
    }
    return close_muxer(&mux, close_memory);
}

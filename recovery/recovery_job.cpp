#include "recovery/recovery_job.h"

#include "recovery/recorder_settings.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr int64_t kProgressBytes = 1 << 20;
static constexpr int32_t kUsualSampleRate = 48000; // of the recorder when nobody sets another
static constexpr int32_t kUsualChannels = 2;
static constexpr int32_t kLeastSamplingIndex = 3; // of the recorder's encoder
static constexpr int32_t kMostSamplingIndex = 11;

int32_t fail_recovery(recovery_job *job, int32_t code, const char *message)
{
    snprintf(job->report->message, sizeof(job->report->message), "%s", message);
    return code;
}

int32_t fail_to_read(recovery_job *job)
{
    if (job->media.has_failed || job->journal.has_failed) {
        return fail_recovery(job, RECOVERY_ERR_READ,
                             job->journal.has_failed ? "The journal cannot be read"
                                                     : "The recording cannot be read");
    }
    return fail_recovery(job, RECOVERY_ERR_MEMORY, "There is not enough memory");
}

static sound_format format_of(int32_t sample_rate, int32_t channels)
{
    const int32_t index = sampling_index_of(sample_rate);
    const bool is_known = index >= kLeastSamplingIndex && index <= kMostSamplingIndex &&
                          (channels == 1 || channels == 2);
    return is_known ? sound_format{index, channels} : sound_format{};
}

// Reads the head of the journal, if there is one.
// out: head_bytes: of a head that can be used; else 0
static int32_t read_journal_head(recovery_job *job, uint32_t *head_bytes)
{
    recovery_report_t *const report = job->report;
    *head_bytes = 0;
    if (job->input->journal == nullptr) {
        return RECOVERY_DONE;
    }
    if (!media_window_open(&job->journal, job->input->journal)) {
        return fail_recovery(job, RECOVERY_ERR_READ, "The journal cannot be read");
    }
    int64_t available = 0;
    uint16_t version = 0;
    const uint8_t *const head = media_window_show(&job->journal, 0, kJournalHeadBytes, &available);
    if (job->journal.has_failed) {
        return fail_to_read(job);
    }
    const journal_result_t result = head == nullptr
                                        ? kJournalEnded
                                        : journal_read_head(head, static_cast<size_t>(available),
                                                            &job->settings, head_bytes, &version);
    report->journal = RECOVERY_JOURNAL_USED;
    if (result == kJournalOtherVersion) {
        report->journal = RECOVERY_JOURNAL_OTHER_VERSION;
        report->journal_version = version;
    } else if (result != kJournalRead || (job->settings.stream_flags & MUX_STREAM_VIDEO) == 0) {
        report->journal = RECOVERY_JOURNAL_DAMAGED;
    }
    *head_bytes = report->journal == RECOVERY_JOURNAL_USED ? *head_bytes : 0;
    return RECOVERY_DONE;
}

static int32_t open_journal(recovery_job *job)
{
    uint32_t head_bytes = 0;
    const int32_t result = read_journal_head(job, &head_bytes);
    if (result != RECOVERY_DONE || head_bytes == 0) {
        return result;
    }
    const mp4_mux_input_t *const input = &job->settings.input;
    job->sound = format_of(input->m_iAudioSampleRate, input->m_iAudioChannels);
    journal_frames_begin(&job->journal_begin, &job->media, &job->journal, job->settings.session,
                         job->sound, head_bytes);
    switch (find_journal_fit(&job->journal_begin)) {
    case kJournalFits:
        job->has_journal = true;
        return RECOVERY_DONE;
    case kJournalOfOtherFile:
        job->report->journal = RECOVERY_JOURNAL_OTHER_FILE;
        return RECOVERY_DONE;
    case kJournalFitUnknown:
        break;
    }
    return fail_to_read(job);
}

// Without a journal the sound's format is that at which its frames parse.
static int32_t find_settings(recovery_job *job)
{
    media_walk walk = {
        .window = &job->media, .position = job->bounds.begin, .end = job->bounds.end};
    const bool has_sound = walk.position < walk.end && media_walk_find_sound(&walk);
    if (job->media.has_failed) {
        return fail_to_read(job);
    }
    const int32_t found_rate = has_sound ? sample_rate_of(walk.sampling_index) : kUsualSampleRate;
    const int32_t sample_rate = job->input->sample_rate != 0 ? job->input->sample_rate : found_rate;
    const int32_t channels = has_sound ? walk.channels : kUsualChannels;
    job->sound = has_sound ? format_of(sample_rate, channels) : sound_format{};
    fill_recorder_settings(&job->settings, sample_rate, channels);
    return RECOVERY_DONE;
}

static int32_t check_input(recovery_job *job)
{
    const recovery_input_t *const input = job->input;
    const recovery_source_t *const journal = input->journal;
    const bool has_rate = input->frame_rate_num != 0 || input->frame_rate_den != 0;
    if (input->media.read_at == nullptr || input->media.size == nullptr ||
        (journal != nullptr && (journal->read_at == nullptr || journal->size == nullptr))) {
        return fail_recovery(job, RECOVERY_ERR_INVALID, "A callback of a source is missing");
    }
    if (input->configuration_bytes < 0 ||
        (input->configuration == nullptr && input->configuration_bytes > 0)) {
        return fail_recovery(job, RECOVERY_ERR_INVALID, "The decoder configuration is missing");
    }
    if (input->sample_rate != 0 && format_of(input->sample_rate, 1).sampling_index == 0) {
        return fail_recovery(job, RECOVERY_ERR_INVALID,
                             "The sampling rate is none that the recorder has");
    }
    if (has_rate && (input->frame_rate_num == 0 || input->frame_rate_den == 0)) {
        return fail_recovery(job, RECOVERY_ERR_INVALID, "The picture rate is not a rate");
    }
    return RECOVERY_DONE;
}

static int32_t find_media(recovery_job *job)
{
    if (!media_window_open(&job->media, &job->input->media)) {
        return fail_recovery(job, RECOVERY_ERR_READ, "The recording cannot be read");
    }
    job->report->file_bytes = job->media.file_bytes;
    return find_media_bounds(&job->media, &job->bounds) ? RECOVERY_DONE : fail_to_read(job);
}

// What the head of the file says counts only without a journal.
static int32_t judge_bounds(recovery_job *job)
{
    if (job->has_journal) {
        return RECOVERY_DONE;
    }
    if (job->bounds.head == kHeadForeign) {
        return fail_recovery(job, RECOVERY_ERR_FORMAT, "The file is not one of the recorder");
    }
    if (job->bounds.has_movie && !job->bounds.is_movie_cut) {
        return fail_recovery(job, RECOVERY_ERR_WHOLE,
                             "The recording is complete: there is nothing to recover");
    }
    return find_settings(job);
}

int32_t open_job(recovery_job *job, int32_t passes)
{
    job->passes = passes;
    job->next_progress_bytes = kProgressBytes;
    int32_t result = check_input(job);
    if (result == RECOVERY_DONE) {
        result = find_media(job);
    }
    if (result == RECOVERY_DONE) {
        result = open_journal(job);
    }
    if (result == RECOVERY_DONE) {
        result = judge_bounds(job);
    }
    job->report->sample_rate = job->settings.input.m_iAudioSampleRate;
    job->report->channels = job->settings.input.m_iAudioChannels;
    return result;
}

void close_job(recovery_job *job)
{
    media_window_close(&job->media);
    media_window_close(&job->journal);
    free(job->record);
    job->record = nullptr;
}

// returns: RECOVERY_DONE or RECOVERY_ERR_CANCELLED
static int32_t report_progress(recovery_job *job, int64_t position)
{
    const recovery_input_t *const input = job->input;
    const int64_t done_bytes = job->passed_bytes + position;
    if (input->progress == nullptr || done_bytes < job->next_progress_bytes) {
        return RECOVERY_DONE;
    }
    job->next_progress_bytes = done_bytes + kProgressBytes;
    const int64_t all_bytes = std::max(job->passes * job->media.file_bytes, done_bytes);
    return input->progress(input->context, done_bytes, all_bytes) == 0
               ? RECOVERY_DONE
               : fail_recovery(job, RECOVERY_ERR_CANCELLED, "The recovery was cancelled");
}

static int32_t begin_pass(recovery_job *job, frame_stream *stream)
{
    frame_stream_begin(stream, &job->media, &job->bounds,
                       job->has_journal ? &job->journal_begin : nullptr, job->sound);
    return report_progress(job, 0);
}

static void end_pass(recovery_job *job)
{
    job->passed_bytes += job->media.file_bytes;
}

// Notes the first picture with parameter sets, and a sound frame of silence.
// returns: false when the frame cannot be shown
static bool inspect_frame(recovery_job *job, const stream_frame *frame)
{
    const recovery_report_t *const report = job->report;
    const bool is_picture = frame->type == MUX_TYPE_VIDEO;
    if (is_picture ? job->sets_bytes != 0 : report->sounds != 0) {
        job->has_only_silence = job->has_only_silence && is_picture;
        return true;
    }
    const uint8_t *const bytes = show_part(&job->media, frame->offset, frame->size);
    if (bytes == nullptr) {
        return frame->size == 0;
    }
    if (!is_picture) {
        job->has_only_silence = frame->size == sizeof(kSilentFrame) && !frame->is_journaled &&
                                memcmp(bytes, kSilentFrame, sizeof(kSilentFrame)) == 0;
        return true;
    }
    picture_sets sets;
    if (find_picture_sets(bytes, frame->size, &sets)) {
        job->sets_offset = frame->offset;
        job->sets_bytes = frame->size;
        job->starts_with_sets = report->pictures == 0;
    }
    return true;
}

static void count_frame(recovery_job *job, const stream_frame *frame)
{
    recovery_report_t *const report = job->report;
    (frame->type == MUX_TYPE_VIDEO ? report->pictures : report->sounds)++;
    report->media_bytes += frame->size;
    report->journaled_frames += frame->is_journaled ? 1 : 0;
    if (frame->skipped_bytes > 0) {
        report->holes++;
        report->hole_bytes += frame->skipped_bytes;
    }
    frame_times_note(&job->times, frame);
    if (frame->type == MUX_TYPE_VIDEO) {
        report->last_ms = frame->time_ms;
    }
}

static int32_t scan_stream(recovery_job *job, frame_stream *stream)
{
    int32_t result = begin_pass(job, stream);
    while (result == RECOVERY_DONE) {
        stream_frame frame;
        switch (frame_stream_next(stream, &frame)) {
        case kStreamEnd:
            return RECOVERY_DONE;
        case kStreamReadError:
            return fail_to_read(job);
        case kStreamFrame:
            break;
        }
        if (!inspect_frame(job, &frame)) {
            return fail_to_read(job);
        }
        count_frame(job, &frame);
        result = report_progress(job, stream->last_end);
    }
    return result;
}

static int32_t find_configuration(const recovery_job *job)
{
    if (job->has_journal && job->settings.video_configuration_bytes != 0) {
        return RECOVERY_FROM_JOURNAL;
    }
    if (job->sets_bytes != 0) {
        return RECOVERY_FROM_MEDIA;
    }
    return job->input->configuration_bytes > 0 ? RECOVERY_FROM_CALLER : RECOVERY_FROM_NOTHING;
}

int32_t scan_frames(recovery_job *job)
{
    recovery_report_t *const report = job->report;
    frame_stream stream;
    const int32_t result = scan_stream(job, &stream);
    job->last_end = stream.last_end;
    report->has_parameter_sets = job->sets_bytes != 0 ? 1 : 0;
    report->configuration_from = find_configuration(job);
    if (result != RECOVERY_DONE) {
        return result;
    }
    end_pass(job);
    report->end_bytes = stream.media_end - stream.last_end;
    if (job->bounds.has_movie && !job->bounds.is_movie_cut && report->holes == 0 &&
        report->end_bytes == 0) {
        return fail_recovery(job, RECOVERY_ERR_WHOLE,
                             "The recording is complete: there is nothing to recover");
    }
    return report->pictures > 0 ? RECOVERY_DONE
                                : fail_recovery(job, RECOVERY_ERR_NOTHING,
                                                "No complete picture is in the recording");
}

static void report_hole(const recovery_job *job, int64_t offset, int64_t bytes, int32_t is_end)
{
    const recovery_hole_t hole = {.offset = offset, .bytes = bytes, .is_end = is_end};
    if (job->input->hole != nullptr && bytes > 0) {
        job->input->hole(job->input->context, &hole);
    }
}

static int32_t pass_frame(recovery_job *job, const stream_frame *frame, void *context,
                          int32_t (*visit)(void *context, const recovery_frame_t *frame))
{
    const uint32_t time_ms = frame_times_next(&job->times, frame);
    const bool is_silence = frame->type == MUX_TYPE_AUDIO && job->has_only_silence;
    const recovery_frame_t passed = {.type = frame->type,
                                     .flags = frame->flags,
                                     .offset = frame->offset,
                                     .size = frame->size,
                                     .time_ms = is_silence ? 0 : time_ms,
                                     .is_journaled = frame->is_journaled ? 1 : 0};
    report_hole(job, frame->offset - frame->skipped_bytes, frame->skipped_bytes, 0);
    if (frame->type == MUX_TYPE_VIDEO) {
        job->report->last_ms = time_ms;
    }
    if (job->input->frame != nullptr) {
        job->input->frame(job->input->context, &passed);
    }
    return visit != nullptr ? visit(context, &passed) : RECOVERY_DONE;
}

int32_t visit_frames(recovery_job *job, void *context,
                     int32_t (*visit)(void *context, const recovery_frame_t *frame))
{
    frame_stream stream;
    frame_times_rewind(&job->times);
    int32_t result = begin_pass(job, &stream);
    while (result == RECOVERY_DONE) {
        stream_frame frame;
        switch (frame_stream_next(&stream, &frame)) {
        case kStreamEnd:
            report_hole(job, stream.last_end, stream.media_end - stream.last_end, 1);
            end_pass(job);
            return RECOVERY_DONE;
        case kStreamReadError:
            return fail_to_read(job);
        case kStreamFrame:
            break;
        }
        result = pass_frame(job, &frame, context, visit);
        if (result == RECOVERY_DONE) {
            result = report_progress(job, stream.last_end);
        }
    }
    return result;
}

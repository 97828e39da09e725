#include "recovery/frame_passes.h"

#include "recovery/recorder_settings.h"

#include <algorithm>
#include <cstring>

static constexpr int64_t kProgressBytes = 1 << 20;

// returns: RECOVERY_DONE or RECOVERY_ERR_CANCELLED
static int32_t report_progress(recovery_job *job, int64_t position)
{
    const recovery_input_t *const input = job->input;
    const int64_t done_bytes = job->passed_bytes + position;
    if (input->progress == nullptr || done_bytes < job->progress_bytes + kProgressBytes) {
        return RECOVERY_DONE;
    }
    job->progress_bytes = done_bytes;
    const int64_t all_bytes = std::max(job->passes * job->media.file_bytes, done_bytes);
    return input->progress(input->context, done_bytes, all_bytes) == 0
               ? RECOVERY_DONE
               : fail_recovery(job, RECOVERY_ERR_CANCELLED, "The recovery was cancelled");
}

static int32_t begin_pass(recovery_job *job, frame_stream *stream)
{
    frame_stream_begin(stream, &job->media, &job->bounds,
                       job->has_journal ? &job->journal_begin : nullptr, job->format, &job->notes);
    return report_progress(job, 0);
}

static void end_pass(recovery_job *job)
{
    job->passed_bytes += job->media.file_bytes;
}

// Gives a picture the time that the tables have.
static void look_up_time(recovery_job *job, stream_frame *frame)
{
    if (job->has_tables && frame->type == MUX_TYPE_VIDEO) {
        frame->is_timed =
            scratch_tables_find(&job->tables, frame->offset, frame->size, &frame->time_ms);
    }
}

// Notes the first picture with parameter sets.
// returns: false when the frame cannot be shown
static bool inspect_frame(recovery_job *job, const stream_frame *frame)
{
    if (frame->type != MUX_TYPE_VIDEO || job->sets_bytes != 0) {
        return true;
    }
    const uint8_t *const bytes = show_part(&job->media, frame->offset, frame->size);
    picture_sets sets;
    if (bytes != nullptr && find_picture_sets(bytes, frame->size, &sets)) {
        job->sets_offset = frame->offset;
        job->sets_bytes = frame->size;
    }
    return bytes != nullptr || frame->size == 0;
}

// Keeps the first pictures from the first key frame on, with which a decoder begins.
static void note_first_picture(recovery_job *job, const stream_frame *frame)
{
    const bool is_key = (frame->flags & MUX_FRAME_KEY) != 0;
    int32_t *const count = &job->first_picture_count;
    if (is_key && *count > 0 && (job->first_pictures[0].flags & MUX_FRAME_KEY) == 0) {
        *count = 0;
    }
    if (*count < RECOVERY_FIRST_PICTURES) {
        job->first_pictures[(*count)++] = {.type = frame->type,
                                           .flags = frame->flags,
                                           .offset = frame->offset,
                                           .size = frame->size,
                                           .is_journaled = frame->is_journaled ? 1 : 0};
    }
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
        note_first_picture(job, frame);
    }
}

static int32_t scan_stream(recovery_job *job, frame_stream *stream)
{
    frame_times_begin(&job->times);
    walk_notes_begin(&job->notes);
    job->first_picture_count = 0;
    int32_t result = begin_pass(job, stream);
    while (result == RECOVERY_DONE) {
        stream_frame frame;
        switch (frame_stream_next(stream, &frame)) {
        case kStreamEnd:
            return RECOVERY_DONE;
        case kStreamReadError:
            return fail_to_read(job);
        case kStreamLostFrame:
            break;
        case kStreamFrame:
            if (!inspect_frame(job, &frame)) {
                return fail_to_read(job);
            }
            look_up_time(job, &frame);
            count_frame(job, &frame);
        }
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

// returns: whether the tables, if there are any, are those of this recording
static bool are_tables_right(recovery_job *job)
{
    return !job->has_tables || !job->tables.is_mismatched;
}

// Forgets what a scan with the tables of another recording has found.
static void forget_scan(recovery_job *job)
{
    recovery_report_t *const report = job->report;
    job->has_tables = false;
    job->sets_bytes = 0;
    report->pictures = 0;
    report->sounds = 0;
    report->media_bytes = 0;
    report->holes = 0;
    report->hole_bytes = 0;
}

static int32_t find_times(const recovery_job *job)
{
    if (job->times.inexact_pictures == 0 && !job->has_tables) {
        return RECOVERY_FROM_JOURNAL;
    }
    if (job->has_tables) {
        return RECOVERY_FROM_TABLES;
    }
    return job->input->frame_rate_num != 0 ? RECOVERY_FROM_CALLER : RECOVERY_FROM_MEDIA;
}

// returns: the bytes after the last frame, without the silence that a stop adds
static int64_t count_end_bytes(recovery_job *job, const frame_stream *stream)
{
    const int64_t bytes = stream->media_end - stream->last_end;
    const uint8_t *const end = bytes == sizeof(kSilentFrame) && job->report->sounds == 0
                                   ? show_part(&job->media, stream->last_end, bytes)
                                   : nullptr;
    return end != nullptr && memcmp(end, kSilentFrame, sizeof(kSilentFrame)) == 0 ? 0 : bytes;
}

static int32_t judge_scan(recovery_job *job, const frame_stream *stream)
{
    recovery_report_t *const report = job->report;
    report->end_bytes = count_end_bytes(job, stream);
    if (job->bounds.has_movie && !job->bounds.is_movie_cut && report->holes == 0 &&
        report->end_bytes == 0) {
        return fail_recovery(job, RECOVERY_ERR_WHOLE,
                             "The recording is complete: there is nothing to recover");
    }
    return report->pictures > 0 ? RECOVERY_DONE
                                : fail_recovery(job, RECOVERY_ERR_NOTHING,
                                                "No complete picture is in the recording");
}

// Several rates can have the same syntax: the one counts at which the pictures have a usual rate.
// Of few frames, or with holes, that shows nothing.
static void choose_sample_rate(recovery_job *job)
{
    static constexpr uint32_t kEnoughPictures = 90;
    static constexpr int32_t kAlike[][3] = {
        {48000, 44100, 0}, {24000, 22050, 0}, {16000, 12000, 11025}};
    if (job->has_journal || job->input->sample_rate != 0 || job->format.sampling_index == 0 ||
        job->report->holes > 0 || job->report->pictures < kEnoughPictures) {
        return;
    }
    for (const auto &rates : kAlike) {
        if (rates[0] == job->settings.input.m_iAudioSampleRate) {
            const int32_t count = rates[2] != 0 ? 3 : 2;
            const int32_t chosen = place_times_choose_rate(&job->times.places, rates, count);
            fill_recorder_settings(&job->settings, chosen, job->format.channels);
            job->report->sample_rate = chosen;
        }
    }
}

int32_t scan_frames(recovery_job *job)
{
    recovery_report_t *const report = job->report;
    frame_stream stream;
    int32_t result = scan_stream(job, &stream);
    if (result == RECOVERY_DONE && !are_tables_right(job)) {
        forget_scan(job);
        result = scan_stream(job, &stream);
    }
    job->last_end = stream.last_end;
    job->has_tables = job->has_tables && job->tables.matches > 0;
    report->has_parameter_sets = job->sets_bytes != 0 ? 1 : 0;
    report->configuration_from = find_configuration(job);
    report->times_from = find_times(job);
    if (result != RECOVERY_DONE) {
        return result;
    }
    end_pass(job);
    choose_sample_rate(job);
    frame_times_fit(&job->times, job->settings.input.m_iAudioSampleRate,
                    {job->input->frame_rate_num, job->input->frame_rate_den});
    return judge_scan(job, &stream);
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
    const recovery_frame_t passed = {.type = frame->type,
                                     .flags = frame->flags,
                                     .offset = frame->offset,
                                     .size = frame->size,
                                     .time_ms = time_ms,
                                     .is_journaled = frame->is_journaled ? 1 : 0};
    job->passed_frames++;
    report_hole(job, frame->offset - frame->skipped_bytes, frame->skipped_bytes, 0);
    if (frame->type == MUX_TYPE_VIDEO) {
        job->report->last_ms = time_ms;
    }
    if (job->input->frame != nullptr) {
        job->input->frame(job->input->context, &passed);
    }
    return visit != nullptr ? visit(context, &passed) : RECOVERY_DONE;
}

// A file that changes between the passes, or is read otherwise, must not be finished in place.
static bool has_same_frames(const recovery_job *job, const frame_stream *stream)
{
    return stream->last_end == job->last_end &&
           job->passed_frames == job->report->pictures + job->report->sounds;
}

static void report_rate(const recovery_job *job)
{
    const steady_rate rate = frame_times_rate(&job->times);
    job->report->frame_rate_num = rate.num;
    job->report->frame_rate_den = rate.den;
}

int32_t visit_frames(recovery_job *job, void *context,
                     int32_t (*visit)(void *context, const recovery_frame_t *frame))
{
    frame_stream stream;
    frame_times_rewind(&job->times);
    scratch_tables_rewind(&job->tables);
    walk_notes_rewind(&job->notes);
    job->passed_frames = 0;
    int32_t result = begin_pass(job, &stream);
    while (result == RECOVERY_DONE) {
        stream_frame frame;
        switch (frame_stream_next(&stream, &frame)) {
        case kStreamEnd:
            if (!has_same_frames(job, &stream)) {
                return fail_recovery(job, RECOVERY_ERR_READ,
                                     "The recording has changed while it was read");
            }
            report_hole(job, stream.last_end, job->report->end_bytes, 1);
            report_rate(job);
            end_pass(job);
            return RECOVERY_DONE;
        case kStreamReadError:
            return fail_to_read(job);
        case kStreamLostFrame:
            (void)frame_times_next(&job->times, &frame);
            break;
        case kStreamFrame:
            look_up_time(job, &frame);
            result = pass_frame(job, &frame, context, visit);
        }
        if (result == RECOVERY_DONE) {
            result = report_progress(job, stream.last_end);
        }
    }
    return result;
}

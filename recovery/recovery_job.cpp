#include "recovery/recovery_job.h"

#include "recovery/movie_check.h"
#include "recovery/recorder_settings.h"

#include <cstdio>
#include <cstdlib>

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
    return job->media.has_failed
               ? fail_recovery(job, RECOVERY_ERR_READ, "The recording cannot be read")
               : fail_recovery(job, RECOVERY_ERR_MEMORY, kNoMemory);
}

static media_format format_of(int32_t sample_rate, int32_t channels)
{
    const int32_t index = sampling_index_of(sample_rate);
    const bool is_known = index >= kLeastSamplingIndex && index <= kMostSamplingIndex &&
                          (channels == 1 || channels == 2);
    return is_known ? media_format{.sampling_index = index, .channels = channels} : media_format{};
}

// Reads the head of the journal. One that cannot be read must not cost the recording.
// returns: its bytes; 0 when it cannot be used, for the reason that is in the report
static uint32_t read_journal_head(recovery_job *job)
{
    recovery_report_t *const report = job->report;
    int64_t available = 0;
    uint32_t head_bytes = 0;
    uint16_t version = 0;
    const uint8_t *const head =
        media_window_open(&job->journal, job->input->journal)
            ? media_window_show(&job->journal, 0, kJournalHeadBytes, &available)
            : nullptr;
    const journal_result_t result = head == nullptr
                                        ? kJournalEnded
                                        : journal_read_head(head, static_cast<size_t>(available),
                                                            &job->settings, &head_bytes, &version);
    report->journal = RECOVERY_JOURNAL_USED;
    if (result == kJournalOtherVersion) {
        report->journal = RECOVERY_JOURNAL_OTHER_VERSION;
        report->journal_version = version;
    } else if (result != kJournalRead || (job->settings.stream_flags & MUX_STREAM_VIDEO) == 0) {
        report->journal = RECOVERY_JOURNAL_DAMAGED;
    }
    return report->journal == RECOVERY_JOURNAL_USED ? head_bytes : 0;
}

static media_walk begin_walk(recovery_job *job)
{
    return {.window = &job->media,
            .position = job->bounds.begin,
            .end = job->bounds.end,
            .sampling_index = job->format.sampling_index,
            .channels = job->format.channels};
}

static int32_t open_journal(recovery_job *job)
{
    const uint32_t head_bytes = job->input->journal != nullptr ? read_journal_head(job) : 0;
    if (head_bytes == 0) {
        return RECOVERY_DONE;
    }
    const mp4_mux_input_t *const input = &job->settings.input;
    job->format = format_of(input->m_iAudioSampleRate, input->m_iAudioChannels);
    const media_walk walk = begin_walk(job);
    job->format.takes_zero_ends = media_walk_has_zero_ends(&walk);
    journal_frames_begin(&job->journal_begin, &job->media, &job->journal, job->settings.session,
                         job->format, head_bytes);
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
    job->format = {};
    media_walk walk = begin_walk(job);
    walk.takes_zero_ends = true; // not known yet
    const bool has_audio = walk.position < walk.end && media_walk_find_sound(&walk);
    if (job->media.has_failed) {
        return fail_to_read(job);
    }
    const int32_t found_rate = has_audio ? sample_rate_of(walk.sampling_index) : kUsualSampleRate;
    const int32_t sample_rate = job->input->sample_rate != 0 ? job->input->sample_rate : found_rate;
    const int32_t channels = has_audio ? walk.channels : kUsualChannels;
    job->format = has_audio ? format_of(sample_rate, channels) : media_format{};
    walk = begin_walk(job);
    job->format.takes_zero_ends = media_walk_has_zero_ends(&walk);
    if (job->media.has_failed) {
        return fail_to_read(job);
    }
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
    for (const recovery_source_t *const table : input->tables) {
        if (table != nullptr && (table->read_at == nullptr || table->size == nullptr)) {
            return fail_recovery(job, RECOVERY_ERR_INVALID, "A callback of a source is missing");
        }
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
    const bool is_found = find_media_bounds(&job->media, &job->bounds);
    const bool has_memory = job->media.buffer != nullptr || job->media.file_bytes == 0;
    return is_found && has_memory ? RECOVERY_DONE : fail_to_read(job);
}

// A recording can have all of its movie box and lack media data: a storage writes in any order.
static bool is_whole(recovery_job *job)
{
    const media_bounds *const bounds = &job->bounds;
    const bool is_of_recorder = bounds->begin == kRecorderHeadBytes;
    return bounds->has_movie && !bounds->is_movie_cut &&
           !(is_of_recorder && has_lost_media(&job->media, bounds->begin, bounds->end));
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
    if (is_whole(job)) {
        return fail_recovery(job, RECOVERY_ERR_WHOLE,
                             "The recording is complete: there is nothing to recover");
    }
    return find_settings(job);
}

static int32_t open_tables(recovery_job *job)
{
    for (const recovery_source_t *const table : job->input->tables) {
        job->has_tables = job->has_tables || table != nullptr;
    }
    if (!scratch_tables_open(&job->tables, job->input->tables)) {
        return fail_recovery(job, RECOVERY_ERR_READ, "A scratch table cannot be read");
    }
    scratch_tables_rewind(&job->tables);
    return RECOVERY_DONE;
}

int32_t open_job(recovery_job *job, int32_t passes)
{
    job->passes = passes;
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
    if (result == RECOVERY_DONE && !job->has_journal) {
        result = open_tables(job);
    }
    job->report->sample_rate = job->settings.input.m_iAudioSampleRate;
    job->report->channels = job->settings.input.m_iAudioChannels;
    return result;
}

void close_job(recovery_job *job)
{
    media_window_close(&job->media);
    media_window_close(&job->journal);
    scratch_tables_close(&job->tables);
    walk_notes_close(&job->notes);
    free(job->record);
    job->record = nullptr;
}

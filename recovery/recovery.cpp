#include "recovery/recovery.h"

#include "recovery/frame_passes.h"
#include "recovery/in_place.h"
#include "recovery/recovery_job.h"
#include "recovery/remux.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr int32_t kPassesOfScan = 2;
static constexpr int32_t kPassesOfWrite = 2;

// The job is too large for some stacks.
// returns: null without memory; the report is cleared in either case
static recovery_job *new_job(const recovery_input_t *input, recovery_report_t *report)
{
    *report = {};
    recovery_job *const job = static_cast<recovery_job *>(calloc(1, sizeof(recovery_job)));
    if (job == nullptr) {
        snprintf(report->message, sizeof(report->message), "%s", kNoMemory);
        return nullptr;
    }
    job->input = input;
    job->report = report;
    return job;
}

static void delete_job(recovery_job *job)
{
    if (job != nullptr) {
        close_job(job);
    }
    free(job);
}

// returns: RECOVERY_DONE when the frames can be muxed
static int32_t scan_job(recovery_job *job, int32_t passes)
{
    const int32_t result = open_job(job, passes);
    return result == RECOVERY_DONE ? scan_frames(job) : result;
}

// in: files: of the muxer, in whose folder more than a few notes are kept
static int32_t scan_to_write(recovery_job *job, const mp4_mux_init_t *files)
{
    job->notes.files = files;
    return scan_job(job, kPassesOfWrite);
}

static int32_t scan_only(recovery_job *job)
{
    const recovery_input_t *const input = job->input;
    const int32_t result = scan_job(job, kPassesOfScan);
    const bool is_asked = input->frame != nullptr || input->hole != nullptr;
    return result == RECOVERY_DONE && (is_asked || job->times.inexact_frames > 0)
               ? visit_frames(job, nullptr, nullptr)
               : result;
}

int32_t recovery_scan(const recovery_input_t *input, recovery_report_t *report)
{
    if (input == nullptr || report == nullptr) {
        return RECOVERY_ERR_INVALID;
    }
    recovery_job *const job = new_job(input, report);
    const int32_t result = job != nullptr ? scan_only(job) : RECOVERY_ERR_MEMORY;
    delete_job(job);
    return result;
}

int32_t recovery_write(const recovery_input_t *input, const mp4_mux_init_t *output,
                       mp4_mux_closemem_t *close_memory, recovery_report_t *report)
{
    if (input == nullptr || output == nullptr || report == nullptr) {
        return RECOVERY_ERR_INVALID;
    }
    recovery_job *const job = new_job(input, report);
    int32_t result = job != nullptr ? scan_to_write(job, output) : RECOVERY_ERR_MEMORY;
    if (result == RECOVERY_DONE) {
        result = remux_frames(job, output, close_memory, nullptr);
    }
    delete_job(job);
    return result;
}

static int32_t finish_job_in_place(recovery_job *job, in_place_file *file,
                                   mp4_mux_closemem_t *close_memory)
{
    if (job->report->holes > 0) {
        return fail_recovery(job, RECOVERY_ERR_HOLES,
                             "The recording has holes: it cannot be finished in place");
    }
    const uint8_t *const head = show_part(&job->media, 0, kRecorderHeadBytes);
    if (head == nullptr) {
        return fail_to_read(job);
    }
    memcpy(file->found, head, kRecorderHeadBytes);
    file->kept_end = job->last_end;
    const mp4_mux_init_t init = use_in_place(file);
    int32_t result = remux_frames(job, &init, close_memory, &file->is_discarded);
    release_in_place();
    if (result == RECOVERY_DONE && !finish_in_place(file)) {
        result = RECOVERY_ERR_WRITE;
    }
    return file->has_failed ? fail_recovery(job, result, "The recording cannot be written")
                            : result;
}

int32_t recovery_in_place(const recovery_input_t *input, const recovery_target_t *target,
                          const mp4_mux_init_t *scratch, mp4_mux_closemem_t *close_memory,
                          recovery_report_t *report)
{
    if (input == nullptr || target == nullptr || scratch == nullptr || report == nullptr) {
        return RECOVERY_ERR_INVALID;
    }
    recovery_job *const job = new_job(input, report);
    in_place_file file = {.target = target, .scratch = scratch};
    int32_t result = job != nullptr ? scan_to_write(job, scratch) : RECOVERY_ERR_MEMORY;
    // The recorder may have been killed between its last write and its sync.
    if (result == RECOVERY_ERR_WHOLE && target->sync(target->context) < 0) {
        result = fail_recovery(job, RECOVERY_ERR_WRITE, "The recording cannot be written");
    }
    if (result == RECOVERY_DONE && job->bounds.begin != kRecorderHeadBytes) {
        result = fail_recovery(job, RECOVERY_ERR_FORMAT,
                               "The recording has a head that the recorder does not write");
    }
    if (result == RECOVERY_DONE) {
        result = finish_job_in_place(job, &file, close_memory);
    }
    delete_job(job);
    return result;
}

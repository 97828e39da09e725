#include "recovery/recovery.h"

#include "recovery/recovery_job.h"
#include "recovery/remux.h"

static constexpr int32_t kPassesOfScan = 2;
static constexpr int32_t kPassesOfWrite = 2;

// returns: RECOVERY_DONE when the frames can be muxed
static int32_t scan_job(recovery_job *job, int32_t passes)
{
    *job->report = {};
    const int32_t result = open_job(job, passes);
    return result == RECOVERY_DONE ? scan_frames(job) : result;
}

int32_t recovery_scan(const recovery_input_t *input, recovery_report_t *report)
{
    if (input == nullptr || report == nullptr) {
        return RECOVERY_ERR_INVALID;
    }
    recovery_job job = {.input = input, .report = report};
    int32_t result = scan_job(&job, kPassesOfScan);
    const bool is_asked = input->frame != nullptr || input->hole != nullptr;
    if (result == RECOVERY_DONE && (is_asked || job.times.inexact_frames > 0)) {
        result = visit_frames(&job, nullptr, nullptr);
    }
    close_job(&job);
    return result;
}

int32_t recovery_write(const recovery_input_t *input, const mp4_mux_init_t *output,
                       mp4_mux_closemem_t *close_memory, recovery_report_t *report)
{
    if (input == nullptr || output == nullptr || report == nullptr) {
        return RECOVERY_ERR_INVALID;
    }
    recovery_job job = {.input = input, .report = report};
    int32_t result = scan_job(&job, kPassesOfWrite);
    if (result == RECOVERY_DONE) {
        result = remux_frames(&job, output, close_memory);
    }
    close_job(&job);
    return result;
}

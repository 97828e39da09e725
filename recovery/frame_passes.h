// The two passes over the frames of a recording: one that finds them, and one that uses them.
#ifndef RECOVERY_FRAME_PASSES_H
#define RECOVERY_FRAME_PASSES_H

#include "recovery/recovery_job.h"

#include <cstdint>

// The sound frame that the recorder adds to a recording with pictures alone.
inline constexpr uint8_t kSilentFrame[] = {0x20, 0, 0, 0, 0, 0, 0x0E};

// Finds the frames and fills the report.
[[nodiscard]] int32_t scan_frames(recovery_job *job);

// Passes each frame of a second pass to `visit`, and frames and holes to the caller's callbacks.
// in: visit: returns 0 to continue; may be null
// returns: RECOVERY_DONE, RECOVERY_ERR_…, or what visit returned
[[nodiscard]] int32_t visit_frames(recovery_job *job, void *context,
                                   int32_t (*visit)(void *context, const recovery_frame_t *frame));

#endif // RECOVERY_FRAME_PASSES_H

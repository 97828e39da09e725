// Muxes the frames of a scanned recording again.
#ifndef RECOVERY_REMUX_H
#define RECOVERY_REMUX_H

#include "recovery/recovery_job.h"

// in: output: as of recovery_write
// in: is_discarded: or null; set before the close that follows a failure and would write to the
//     output
// returns: RECOVERY_DONE, or RECOVERY_ERR_…; the muxer is closed in either case
[[nodiscard]] int32_t remux_frames(recovery_job *job, const mp4_mux_init_t *output,
                                   mp4_mux_closemem_t *close_memory, bool *is_discarded);

#endif // RECOVERY_REMUX_H

// The recovery of one recording.
#ifndef CLIENT_RECOVER_JOB_H
#define CLIENT_RECOVER_JOB_H

#include "client/options.h"
#include "client/recover_report.h"
#include "client/recover_search.h"

// Recovers into a new file, or in place.
// out: outcome: filled as far as possible, also when the recovery fails
// throws: `failure`
void recover_job_run(const recover_options &options, const broken_recording &broken,
                     recover_outcome &outcome);

#endif // CLIENT_RECOVER_JOB_H

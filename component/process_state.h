// What the component keeps once per process: the output path, the storage handle, the stop reason,
// the time tables and the mutexes.
//
// Lock order: lockTDMBRecording, then lockDFHandle or lockParameters, never both of these. The lock
// of component/end_reports.cpp is taken while none of them is held.
#ifndef COMPONENT_PROCESS_STATE_H
#define COMPONENT_PROCESS_STATE_H

#include "component/private_record.h"
#include "platform/storage_info.h"

#include <cstdint>
#include <pthread.h>

inline constexpr uint8_t kAudioPtsEntries = 50;

// Held while a muxer session is opened, written to or closed.
extern pthread_mutex_t lockTDMBRecording;
// Guards global_mountinfo. The life of a recording alone already keeps its threads apart, so no
// test can fail without the lock: the start opens the handle while it holds the claim and before
// bRecording is 1; the buffer callback uses it only between bCallbackIdle 0 with bRecording 1 and
// bCallbackIdle 1; the close closes it after bRecording is 0 and bCallbackIdle is 1, and releases
// the claim later. All of these words are sequentially consistent. docs/models/recordings.pml
// asserts it in every state.
extern pthread_mutex_t lockDFHandle;
// Guards szOutFileName and every component's name parts.
extern pthread_mutex_t lockParameters;

extern char szOutFileName[TDMBREC_PATH_BYTES]; // under lockParameters; may lack a terminator
extern df_handle_t *global_mountinfo;          // under lockDFHandle; null when none is open
extern uint8_t global_uc_stop_type;            // atomic: tdmbrec_stop_reason_t
// Audio ring: word i is the time (ms) of entry i, word kAudioPtsEntries + i its PCM bytes.
// thread: the recording's buffer thread
extern uint32_t global_ui_AUDIO_PTS[2 * kAudioPtsEntries];

enum claim_result_t {
    kClaimGranted,
    kClaimRecording,     // the component records already
    kClaimOtherComponent // another one records or is being closed
};

// Makes the component the only one that may record, until release_recording. Waits until its last
// recording is closed, not until the end of that is reported.
// thread: any that does not hold the claim
[[nodiscard]] claim_result_t claim_recording(omx_tdmbrec_component_PrivateType *self);

// Lets the next recording of the process begin. Does not access the record.
void release_recording(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_PROCESS_STATE_H

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

#define AUDIO_PTS_ENTRIES 50

// Held while a muxer session is opened, written to or closed.
extern pthread_mutex_t lockTDMBRecording;
// Guards global_mountinfo. The life of a recording alone keeps its threads apart already, so that
// no test can miss the lock: the start opens the handle while it holds the claim and before
// bRecording is 1; the buffer callback queries it (and closes it when the storage is full) between
// bCallbackIdle 0 with bRecording 1 and bCallbackIdle 1; the close closes it after bRecording is 0
// and after it has seen bCallbackIdle 1, and gives up the claim later. All of these words are
// sequentially consistent. docs/models/recordings.pml asserts it in every state.
extern pthread_mutex_t lockDFHandle;
// Guards szOutFileName and every component's name parts.
extern pthread_mutex_t lockParameters;

extern char szOutFileName[TDMBREC_PATH_BYTES]; // under lockParameters; may lack a terminator
extern df_handle_t *global_mountinfo;          // under lockDFHandle; null when none is open
extern uint8_t global_uc_stop_type;            // atomic: tdmbrec_stop_reason_t
// Audio ring: word i is the time (ms) of entry i, word 50 + i its PCM bytes. The recording's buffer
// thread.
extern uint32_t global_ui_AUDIO_PTS[2 * AUDIO_PTS_ENTRIES];
// The component whose recording is being prepared, running or being closed; null when none is.
extern omx_tdmbrec_component_PrivateType *global_recording_owner; // atomic

// Makes the component the one that records in the process. kClaimGranted: from now on it is, until
// release_recording; its last recording, if it had one, is closed (the claim waits for that, not
// for the report of its end). kClaimRecording: it records already. kClaimOtherComponent: another
// one records or is being closed. thread: any that does not hold the claim.
enum claim_result_t { kClaimGranted, kClaimRecording, kClaimOtherComponent };
[[nodiscard]] claim_result_t claim_recording(omx_tdmbrec_component_PrivateType *self);
// Lets the next recording of the process begin. The record is only named, not touched.
void release_recording(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_PROCESS_STATE_H

// The end of a recording: one way for every reason.
//
// Whoever takes bRecording from 1 to 0 ends the recording: it alone sets the reason and starts the
// stop procedure, so that a recording ends once and is reported once. docs/models/recordings.pml is
// the model of the life of a recording.
#ifndef COMPONENT_RECORDING_END_H
#define COMPONENT_RECORDING_END_H

#include "component/private_record.h"

// Ends the active recording on the client's request; waits until the current buffer is recorded,
// not for the end.
// thread: any of the client's, also in its event handler
void stop_recording(OMX_COMPONENTTYPE *component);

// Ends the active recording, if any; returns when every recording of the component is closed and
// reported.
// thread: the destructor
void stop_recording_for_good(OMX_COMPONENTTYPE *component);

// returns: true for the one caller that ended the active recording; it owes a call of begin_stop
[[nodiscard]] bool take_recording(omx_tdmbrec_component_PrivateType *self);

// Sets the reason and runs the stop procedure on a thread of its own, or on this one when no thread
// can be created.
// thread: the one that ended the recording; the buffer thread only after bCallbackIdle is 1
void begin_stop(OMX_COMPONENTTYPE *component, tdmbrec_stop_reason_t reason);

// Closes the storage handle and the muxer session, resets the recording's state, releases the claim
// and reports the end to the client: with the reason of the stop, or with reason 0 when there was
// no session. The event has returned when this does, unless another thread reports it later
// (component/end_reports.h). The component may be gone on return.
// returns: OMX_ErrorNone, or OMX_ErrorBadParameter when the file could not be finished (logged)
// thread: the stop procedure, or a start that found no storage; holds the claim; takes
//         lockTDMBRecording
OMX_ERRORTYPE omx_tdmbrec_mp4_mux_DeInit(OMX_COMPONENTTYPE *component,
                                         omx_tdmbrec_component_PrivateType *self);

// Detaches the thread that ended the last recording. It is not joined: it may still be in the
// client's event handler, from which the next start may come, or be sending the reports of others.
void let_stop_thread_go(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_RECORDING_END_H

// The life of a recording: its start, and the one way in which it ends.
//
// Whoever takes bRecording from 1 to 0 ends the recording: it alone sets the reason and starts the
// stop procedure, so that a recording ends once and is reported once. docs/models/recordings.pml is
// the model of it.
#ifndef COMPONENT_RECORDING_CONTROL_H
#define COMPONENT_RECORDING_CONTROL_H

#include "component/private_record.h"

// Starts a recording to the path last set. A start while the component records changes nothing.
// returns OMX_ErrorNone, also when there is no storage (the client gets the end of the recording
// with reason 0); OMX_ErrorInsufficientResources when another component of the process records,
// memory is short, TDMBREC_ENDS ends are not yet reported or the component is being destroyed.
[[nodiscard]] OMX_ERRORTYPE start_recording(OMX_COMPONENTTYPE *component);

// Ends the active recording on the client's request; waits for the buffer in hand, not for the end.
void stop_recording(OMX_COMPONENTTYPE *component);

// Ends the active recording, if any, because the component goes; returns when every recording of
// the component is closed and reported.
void stop_recording_for_good(OMX_COMPONENTTYPE *component);

// True for the one caller that ended the active recording; it owes a call of begin_stop.
[[nodiscard]] bool take_recording(omx_tdmbrec_component_PrivateType *self);

// Sets the reason and runs the stop procedure on a thread of its own; on this thread when there is
// none to be had. On the buffer thread bCallbackIdle has to be up.
void begin_stop(OMX_COMPONENTTYPE *component, tdmbrec_stop_reason_t reason);

#endif // COMPONENT_RECORDING_CONTROL_H

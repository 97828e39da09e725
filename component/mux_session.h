// The recording's file: one session of the muxer, from the first parameter sets to the stop.
#ifndef COMPONENT_MUX_SESSION_H
#define COMPONENT_MUX_SESSION_H

#include "component/private_record.h"

// Opens the session with the captured parameter sets; without any, the muxer takes them from the
// first access unit. Does nothing when a session is open.
// returns OMX_ErrorNone, or OMX_ErrorBadParameter when the muxer cannot open the file (logged).
// thread: the buffer thread; takes lockTDMBRecording.
[[nodiscard]] OMX_ERRORTYPE omx_tdmbrec_mp4_mux_Init(omx_tdmbrec_component_PrivateType *self);

// Closes the storage handle and the session, if there is one, resets the recording's state, gives
// up the claim and reports the end of the recording to the client: with the reason of the stop, or
// with reason 0 when there was no session. On the stop thread the event has returned when this
// does; elsewhere too, unless the event of an earlier end has not (component/end_reports.h). The
// component may be gone on return.
// returns OMX_ErrorNone, or OMX_ErrorBadParameter when the muxer could not finish the file (logged)
// thread: the stop procedure, or a start that found no storage; holds the claim; takes
//         lockTDMBRecording
OMX_ERRORTYPE omx_tdmbrec_mp4_mux_DeInit(OMX_COMPONENTTYPE *component,
                                         omx_tdmbrec_component_PrivateType *self);

// Fetches the muxer's last error into stMuxError; its message is not null until the session closes.
void fetch_mux_error(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_MUX_SESSION_H

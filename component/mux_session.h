// The recording's file: one session of the muxer, from the first parameter sets to the stop.
#ifndef COMPONENT_MUX_SESSION_H
#define COMPONENT_MUX_SESSION_H

#include "component/private_record.h"

// What the video port and the file state, whatever the pictures are.
inline constexpr int kFrameWidth = 320;  // pixels
inline constexpr int kFrameHeight = 240; // pixels
inline constexpr int kFramesPerSecond = 30;

// Opens the session with the captured parameter sets; without any, the muxer takes them from the
// first access unit. Does nothing when a session is open.
// returns: OMX_ErrorNone, or OMX_ErrorBadParameter when the muxer cannot open the file (logged)
// thread: the buffer thread; takes lockTDMBRecording
[[nodiscard]] OMX_ERRORTYPE omx_tdmbrec_mp4_mux_Init(omx_tdmbrec_component_PrivateType *self);

// Finishes and closes the file and frees the lent memory.
// returns: OMX_ErrorNone, or OMX_ErrorBadParameter when the file could not be finished (logged)
// thread: the end of a recording whose session is open; under lockTDMBRecording
[[nodiscard]] OMX_ERRORTYPE close_mux_session(omx_tdmbrec_component_PrivateType *self);

// Marks the next recording's session as not yet opened.
// thread: the constructor; the end of a recording, under lockTDMBRecording
void reset_mux_session(omx_tdmbrec_component_PrivateType *self);

// Fetches the muxer's last error into stMuxError; its message is not null until the session closes.
// thread: any; under lockTDMBRecording
void fetch_mux_error(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_MUX_SESSION_H

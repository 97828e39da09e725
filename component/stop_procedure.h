// The one procedure through which every recording ends.
#ifndef COMPONENT_STOP_PROCEDURE_H
#define COMPONENT_STOP_PROCEDURE_H

#include "component/private_record.h"

// Polls until the buffer callback is outside the recording.
void wait_for_idle_callback(omx_tdmbrec_component_PrivateType *self);

// Waits for the buffer callback, joins the writer threads, releases the encoder, closes the file
// and sends the client the end of the recording. thread: the stop thread; the one that ended the
// recording when there is no stop thread.
void run_stop_procedure(OMX_COMPONENTTYPE *component);

#endif // COMPONENT_STOP_PROCEDURE_H

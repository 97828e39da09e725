// The beginning of a recording: claim, storage, encoder. The first parameter sets open the file.
//
// docs/models/recordings.pml is the model of the life of a recording.
#ifndef COMPONENT_RECORDING_BEGIN_H
#define COMPONENT_RECORDING_BEGIN_H

#include "component/private_record.h"

// Starts a recording to the path last set. A start while the component records changes nothing.
// returns: OMX_ErrorNone, also when there is no storage (the client gets the end of the recording
//          with reason 0); OMX_ErrorInsufficientResources when another component of the process
//          records, memory is short, kMostUnreportedEnds ends are unreported or the component is
//          being destroyed
// thread: any of the client's, also in its event handler
[[nodiscard]] OMX_ERRORTYPE start_recording(OMX_COMPONENTTYPE *component);

#endif // COMPONENT_RECORDING_BEGIN_H

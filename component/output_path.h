// The path of the next recording, as the client sets it, and of the recording that starts.
#ifndef COMPONENT_OUTPUT_PATH_H
#define COMPONENT_OUTPUT_PATH_H

#include "component/private_record.h"

// Keeps the path of the next recording.
// in: record: TDMBREC_PATH_BYTES bytes, which may lack a terminator
void set_output_path(const void *record);

// Makes the path last set that of this recording.
void take_output_path(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_OUTPUT_PATH_H

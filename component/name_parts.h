// The two strings and the output path that the client sets with vendor parameters.
#ifndef COMPONENT_NAME_PARTS_H
#define COMPONENT_NAME_PARTS_H

#include "component/private_record.h"

// Copy what the client's record holds. The name parts are kept until a recording ends; the path is
// that of the next recording.
void set_name_part_1(omx_tdmbrec_component_PrivateType *self, const void *record);
void set_name_part_2(omx_tdmbrec_component_PrivateType *self, const void *record);
void set_output_path(const void *record);

void clear_name_parts(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_NAME_PARTS_H

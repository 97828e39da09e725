// The two strings that the client sets with vendor parameters.
#ifndef COMPONENT_NAME_PARTS_H
#define COMPONENT_NAME_PARTS_H

#include "component/private_record.h"

// Copy the client's record; it is kept until a recording ends.
void set_name_part_1(omx_tdmbrec_component_PrivateType *self, const void *record);
void set_name_part_2(omx_tdmbrec_component_PrivateType *self, const void *record);

// thread: the end of a recording
void clear_name_parts(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_NAME_PARTS_H

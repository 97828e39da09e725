#include "component/name_parts.h"

#include "component/process_state.h"

#include <cstring>

static void copy_name(char *to, const void *record, size_t bytes)
{
    pthread_mutex_lock(&lockParameters);
    memcpy(to, record, bytes);
    pthread_mutex_unlock(&lockParameters);
}

void set_name_part_1(omx_tdmbrec_component_PrivateType *self, const void *record)
{
    copy_name(self->szNamePart1, record, sizeof(self->szNamePart1));
}

void set_name_part_2(omx_tdmbrec_component_PrivateType *self, const void *record)
{
    copy_name(self->szNamePart2, record, sizeof(self->szNamePart2));
}

void clear_name_parts(omx_tdmbrec_component_PrivateType *self)
{
    static constexpr char kNoName[TDMBREC_NAME_PART_2_BYTES] = {};
    set_name_part_1(self, kNoName);
    set_name_part_2(self, kNoName);
}

#include "component/name_parts.h"

#include "component/process_state.h"

#include <cstring>

static void copy_parameter(char *szTo, const void *pRecord, size_t bytes)
{
    pthread_mutex_lock(&lockParameters);
    memcpy(szTo, pRecord, bytes);
    pthread_mutex_unlock(&lockParameters);
}

void set_name_part_1(omx_tdmbrec_component_PrivateType *pPrivate, const void *pRecord)
{
    copy_parameter(pPrivate->szNamePart1, pRecord, sizeof(pPrivate->szNamePart1));
}

void set_name_part_2(omx_tdmbrec_component_PrivateType *pPrivate, const void *pRecord)
{
    copy_parameter(pPrivate->szNamePart2, pRecord, sizeof(pPrivate->szNamePart2));
}

void set_output_path(const void *pRecord)
{
    copy_parameter(szOutFileName, pRecord, sizeof(szOutFileName));
}

void clear_name_parts(omx_tdmbrec_component_PrivateType *pPrivate)
{
    static constexpr char kNoName[TDMBREC_NAME_PART_2_BYTES] = {};
    set_name_part_1(pPrivate, kNoName);
    set_name_part_2(pPrivate, kNoName);
}

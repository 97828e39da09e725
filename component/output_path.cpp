#include "component/output_path.h"

#include "component/process_state.h"

#include <cstring>

void set_output_path(const void *record)
{
    pthread_mutex_lock(&lockParameters);
    memcpy(szOutFileName, record, sizeof(szOutFileName));
    pthread_mutex_unlock(&lockParameters);
}

void take_output_path(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&lockParameters);
    memcpy(self->szRecordingPath, szOutFileName, sizeof(szOutFileName));
    pthread_mutex_unlock(&lockParameters);
    self->szRecordingPath[TDMBREC_PATH_BYTES] = '\0';
}

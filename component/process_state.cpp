#include "component/process_state.h"

#include "component/shared_fields.h"

#include <unistd.h>

pthread_mutex_t lockTDMBRecording = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t lockDFHandle = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t lockParameters = PTHREAD_MUTEX_INITIALIZER;

char szOutFileName[TDMBREC_PATH_BYTES];
df_handle_t *global_mountinfo;
uint8_t global_uc_stop_type;
uint32_t global_ui_AUDIO_PTS[2 * kAudioPtsEntries];
uint32_t global_ui_VIDEO_PTS[TDMBREC_VIDEO_SEGMENTS][TDMBREC_SEGMENT_WORDS];
uint8_t global_uc_write_index;

// The component whose recording is being prepared, running or being closed; null when none is.
static omx_tdmbrec_component_PrivateType *recording_owner; // atomic

claim_result_t claim_recording(omx_tdmbrec_component_PrivateType *self)
{
    omx_tdmbrec_component_PrivateType *const nobody = nullptr;
    while (!swap_shared(recording_owner, nobody, self)) {
        const omx_tdmbrec_component_PrivateType *const owner = load_shared(recording_owner);
        if (owner != self && owner != nullptr) {
            return kClaimOtherComponent;
        }
        if (load_shared(self->bRecording) == 1) {
            return kClaimRecording;
        }
        usleep(1);
    }
    return kClaimGranted;
}

void release_recording(omx_tdmbrec_component_PrivateType *self)
{
    omx_tdmbrec_component_PrivateType *const nobody = nullptr;
    // A close with nothing to close may run while another component records.
    (void)swap_shared(recording_owner, self, nobody);
}

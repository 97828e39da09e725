#include "component/recording_begin.h"

#include "component/audio_encoder.h"
#include "component/component_log.h"
#include "component/end_reports.h"
#include "component/output_path.h"
#include "component/process_state.h"
#include "component/recording_end.h"
#include "component/shared_fields.h"
#include "component/storage_watch.h"

static OMX_ERRORTYPE start_claimed_recording(OMX_COMPONENTTYPE *component)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    if (!owe_report(component)) {
        release_recording(self);
        return OMX_ErrorInsufficientResources;
    }
    let_stop_thread_go(self);
    if (!open_storage()) {
        store_shared<uint8_t>(global_uc_stop_type, TDMBREC_STOP_STORAGE);
        (void)omx_tdmbrec_mp4_mux_DeInit(component, self);
        return OMX_ErrorNone;
    }
    take_output_path(self);
    const OMX_ERRORTYPE result = omx_tdmbrec_audio_enc_Init(self);
    if (result != OMX_ErrorNone) {
        close_storage();
        cancel_report(self);
        release_recording(self);
        return result;
    }
    store_shared<uint32_t>(self->bRecording, 1);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE start_recording(OMX_COMPONENTTYPE *component)
{
    switch (claim_recording(private_record(component))) {
    case kClaimGranted:
        return start_claimed_recording(component);
    case kClaimRecording:
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "Start while recording: ignored\n");
        return OMX_ErrorNone;
    case kClaimOtherComponent:
        break;
    }
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "Start refused: another component is recording\n");
    return OMX_ErrorInsufficientResources;
}

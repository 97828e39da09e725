#include "component/recording_control.h"

#include "component/audio_encoder.h"
#include "component/component_log.h"
#include "component/end_reports.h"
#include "component/mux_session.h"
#include "component/omx_tdmbrec_component.h"
#include "component/process_state.h"
#include "component/shared_fields.h"
#include "component/stop_procedure.h"
#include "component/storage_watch.h"

#include <cstring>
#include <unistd.h>

// The recording that the thread ended is over. The thread is not waited for: it may still be in the
// client's event handler, from which this start may come, or be sending the reports of others.
static void let_stop_thread_go(omx_tdmbrec_component_PrivateType *self)
{
    const pthread_t thread = exchange_shared(self->hStopThread, pthread_t{});
    if (thread != pthread_t{}) {
        (void)pthread_detach(thread);
    }
}

static void copy_recording_path(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&lockParameters);
    memcpy(self->szRecordingPath, szOutFileName, TDMBREC_PATH_BYTES);
    pthread_mutex_unlock(&lockParameters);
    self->szRecordingPath[TDMBREC_PATH_BYTES] = '\0';
}

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
    copy_recording_path(self);
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
        __android_log_print(ANDROID_LOG_WARN, TDMBREC_LOG_TAG, "Start while recording: ignored\n");
        return OMX_ErrorNone;
    case kClaimOtherComponent:
        break;
    }
    __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                        "Start refused: another component is recording\n");
    return OMX_ErrorInsufficientResources;
}

void stop_recording(OMX_COMPONENTTYPE *component)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    if (!take_recording(self)) {
        return;
    }
    wait_for_idle_callback(self);
    begin_stop(component, TDMBREC_STOP_CLIENT);
}

void stop_recording_for_good(OMX_COMPONENTTYPE *component)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    refuse_recordings(self);
    // A start that was under way has still to make its recording active; another thread may have
    // ended the last one a moment ago.
    do {
        if (take_recording(self)) {
            begin_stop(component, TDMBREC_STOP_DESTROYED);
        }
        usleep(1);
    } while (!is_every_end_reported(component));
    let_stop_thread_go(self);
    wait_for_idle_callback(self);
}

bool take_recording(omx_tdmbrec_component_PrivateType *self)
{
    return swap_shared<uint32_t>(self->bRecording, 1, 0);
}

void begin_stop(OMX_COMPONENTTYPE *component, tdmbrec_stop_reason_t reason)
{
    store_shared<uint8_t>(global_uc_stop_type, reason);
    pthread_t thread; // the thread itself publishes its handle, before anyone can miss it
    if (pthread_create(&thread, nullptr, omx_tdmbrec_stop_thread, component) != 0) {
        run_stop_procedure(component);
    }
}

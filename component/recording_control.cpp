#include "component/recording_control.h"

#include "component/audio_encoder.h"
#include "component/client_events.h"
#include "component/component_log.h"
#include "component/end_reports.h"
#include "component/mux_session.h"
#include "component/process_state.h"
#include "component/shared_fields.h"
#include "component/stop_procedure.h"
#include "component/storage_watch.h"

#include <cstring>
#include <unistd.h>

// The recording that the thread ended is over. The thread is not waited for: it may still be in the
// client's event handler, from which this start may come, or be sending the reports of others.
static void let_stop_thread_go(omx_tdmbrec_component_PrivateType *pPrivate)
{
    const pthread_t hThread = exchange_shared(pPrivate->hStopThread, pthread_t{});
    if (hThread != pthread_t{}) {
        (void)pthread_detach(hThread);
    }
}

static void copy_recording_path(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pthread_mutex_lock(&lockParameters);
    memcpy(pPrivate->szRecordingPath, szOutFileName, TDMBREC_PATH_BYTES);
    pthread_mutex_unlock(&lockParameters);
    pPrivate->szRecordingPath[TDMBREC_PATH_BYTES] = '\0';
}

static OMX_ERRORTYPE start_claimed_recording(OMX_COMPONENTTYPE *pComponent)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    if (!owe_report(pComponent)) {
        release_recording(pPrivate);
        return OMX_ErrorInsufficientResources;
    }
    let_stop_thread_go(pPrivate);
    if (!open_storage()) {
        store_shared<uint8_t>(global_uc_stop_type, TDMBREC_STOP_STORAGE);
        (void)omx_tdmbrec_mp4_mux_DeInit(pComponent, pPrivate);
        return OMX_ErrorNone;
    }
    copy_recording_path(pPrivate);
    const OMX_ERRORTYPE result = omx_tdmbrec_audio_enc_Init(pPrivate);
    if (result != OMX_ErrorNone) {
        close_storage();
        cancel_report(pPrivate);
        release_recording(pPrivate);
        return result;
    }
    store_shared<uint32_t>(pPrivate->bRecording, 1);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE start_recording(OMX_COMPONENTTYPE *pComponent)
{
    switch (claim_recording(private_record(pComponent))) {
    case kClaimGranted:
        return start_claimed_recording(pComponent);
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

void stop_recording(OMX_COMPONENTTYPE *pComponent)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    if (!take_recording(pPrivate)) {
        return;
    }
    wait_for_idle_callback(pPrivate);
    begin_stop(pComponent, TDMBREC_STOP_CLIENT);
}

void stop_recording_for_good(OMX_COMPONENTTYPE *pComponent)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    refuse_recordings(pPrivate);
    // A start that was under way has still to make its recording active; another thread may have
    // ended the last one a moment ago.
    do {
        if (take_recording(pPrivate)) {
            begin_stop(pComponent, TDMBREC_STOP_DESTROYED);
        }
        usleep(1);
    } while (!is_every_end_reported(pComponent));
    let_stop_thread_go(pPrivate);
    wait_for_idle_callback(pPrivate);
}

bool take_recording(omx_tdmbrec_component_PrivateType *pPrivate)
{
    return swap_shared<uint32_t>(pPrivate->bRecording, 1, 0);
}

void begin_stop(OMX_COMPONENTTYPE *pComponent, tdmbrec_stop_reason_t reason)
{
    store_shared<uint8_t>(global_uc_stop_type, reason);
    pthread_t hThread; // the thread itself publishes its handle, before anyone can miss it
    if (pthread_create(&hThread, nullptr, omx_tdmbrec_stop_thread, pComponent) != 0) {
        run_stop_procedure(pComponent);
    }
}

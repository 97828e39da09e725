#include "component/recording_end.h"

#include "component/audio_encoder.h"
#include "component/audio_path.h"
#include "component/end_reports.h"
#include "component/frame_writer.h"
#include "component/losses.h"
#include "component/mux_session.h"
#include "component/name_parts.h"
#include "component/omx_tdmbrec_component.h"
#include "component/parameter_sets.h"
#include "component/process_state.h"
#include "component/shared_fields.h"
#include "component/storage_watch.h"
#include "component/time_line.h"
#include "component/video_path.h"

#include <unistd.h>

static void wait_for_idle_callback(omx_tdmbrec_component_PrivateType *self)
{
    while (load_shared(self->bCallbackIdle) == 0) {
        usleep(1);
    }
}

static void join_writer_thread(pthread_t *handle)
{
    const pthread_t thread = exchange_shared(*handle, pthread_t{});
    if (thread == pthread_t{}) {
        return;
    }
    if (pthread_equal(thread, pthread_self()) != 0) {
        (void)pthread_detach(thread); // it ended the recording, and there is no stop thread
    } else {
        (void)pthread_join(thread, nullptr);
    }
}

// Also after a recording that never opened its file: its times must not reach the next one.
// ucBufferPort is not reset: the buffer thread sets it before every callback.
static void reset_recording(omx_tdmbrec_component_PrivateType *self)
{
    reset_mux_session(self);
    reset_written_frames(self);
    reset_time_line(self);
    reset_video_path(self);
    forget_kept_sets(self);
    reset_audio_path(self);
    reset_audio_configuration(self);
    clear_name_parts(self);
}

// out: *reason: what the client is to be notified of
// returns: the result of the session's close
static OMX_ERRORTYPE close_recording_locked(omx_tdmbrec_component_PrivateType *self,
                                            uint8_t *reason)
{
    OMX_ERRORTYPE result = OMX_ErrorNone;
    close_storage();
    if (self->bMuxOpen == 1) {
        result = close_mux_session(self);
        *reason = load_shared(global_uc_stop_type);
    } else {
        *reason = TDMBREC_STOP_STORAGE;
        store_shared<uint8_t>(global_uc_stop_type, TDMBREC_STOP_STORAGE);
    }
    report_losses(self);
    reset_recording(self);
    return result;
}

// When the client is notified, no lock is held and the next recording may begin, so that the client
// may call anything from the event.
OMX_ERRORTYPE omx_tdmbrec_mp4_mux_DeInit(OMX_COMPONENTTYPE *component,
                                         omx_tdmbrec_component_PrivateType *self)
{
    uint8_t reason = TDMBREC_STOP_STORAGE;
    pthread_mutex_lock(&lockTDMBRecording);
    const OMX_ERRORTYPE result = close_recording_locked(self, &reason);
    pthread_mutex_unlock(&lockTDMBRecording);
    // hStopThread is kept until the next start, so that no other thread can have the same handle.
    const bool is_stop_thread = pthread_equal(load_shared(self->hStopThread), pthread_self()) != 0;
    report_end(component, reason, is_stop_thread);
    return result;
}

static void run_stop_procedure(OMX_COMPONENTTYPE *component)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    wait_for_idle_callback(self);
    join_writer_thread(&self->hAudioWriterThread);
    join_writer_thread(&self->hVideoWriterThread);
    (void)omx_tdmbrec_audio_enc_DeInit(self);
    (void)omx_tdmbrec_mp4_mux_DeInit(component, self);
}

void *omx_tdmbrec_stop_thread(void *handle)
{
    OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(handle);
    store_shared(private_record(component)->hStopThread, pthread_self());
    run_stop_procedure(component);
    pthread_exit(nullptr);
}

void let_stop_thread_go(omx_tdmbrec_component_PrivateType *self)
{
    const pthread_t thread = exchange_shared(self->hStopThread, pthread_t{});
    if (thread != pthread_t{}) {
        (void)pthread_detach(thread);
    }
}

bool take_recording(omx_tdmbrec_component_PrivateType *self)
{
    return swap_shared<uint32_t>(self->bRecording, 1, 0);
}

void begin_stop(OMX_COMPONENTTYPE *component, tdmbrec_stop_reason_t reason)
{
    store_shared(global_uc_stop_type, static_cast<uint8_t>(reason));
    pthread_t
        thread; // unused: the thread itself publishes its handle before it can end the recording
    if (pthread_create(&thread, nullptr, omx_tdmbrec_stop_thread, component) != 0) {
        run_stop_procedure(component);
    }
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
    // A start that is under way may still make its recording active, and another thread may just
    // have ended the last one.
    do {
        if (take_recording(self)) {
            begin_stop(component, TDMBREC_STOP_DESTROYED);
        }
        usleep(1);
    } while (!is_every_end_reported(component));
    let_stop_thread_go(self);
    wait_for_idle_callback(self);
}

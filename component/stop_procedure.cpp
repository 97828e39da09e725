#include "component/stop_procedure.h"

#include "component/audio_encoder.h"
#include "component/mux_session.h"
#include "component/omx_tdmbrec_component.h"
#include "component/shared_fields.h"

#include <unistd.h>

void wait_for_idle_callback(omx_tdmbrec_component_PrivateType *self)
{
    while (load_shared(self->bCallbackIdle) == 0) {
        usleep(1);
    }
}

static void join_writer_thread(pthread_t *thread_out)
{
    const pthread_t thread = exchange_shared(*thread_out, pthread_t{});
    if (thread == pthread_t{}) {
        return;
    }
    if (pthread_equal(thread, pthread_self()) != 0) {
        (void)pthread_detach(thread); // it ended the recording, and there is no stop thread
    } else {
        (void)pthread_join(thread, nullptr);
    }
}

void run_stop_procedure(OMX_COMPONENTTYPE *component)
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

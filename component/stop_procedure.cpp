#include "component/stop_procedure.h"

#include "component/audio_encoder.h"
#include "component/client_events.h"
#include "component/mux_session.h"
#include "component/shared_fields.h"

#include <unistd.h>

void wait_for_idle_callback(omx_tdmbrec_component_PrivateType *pPrivate)
{
    while (load_shared(pPrivate->bCallbackIdle) == 0) {
        usleep(1);
    }
}

static void join_writer_thread(pthread_t *phThread)
{
    const pthread_t hThread = exchange_shared(*phThread, pthread_t{});
    if (hThread == pthread_t{}) {
        return;
    }
    if (pthread_equal(hThread, pthread_self()) != 0) {
        (void)pthread_detach(hThread); // it ended the recording, and there is no stop thread
    } else {
        (void)pthread_join(hThread, nullptr);
    }
}

void run_stop_procedure(OMX_COMPONENTTYPE *pComponent)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    wait_for_idle_callback(pPrivate);
    join_writer_thread(&pPrivate->hAudioWriterThread);
    join_writer_thread(&pPrivate->hVideoWriterThread);
    (void)omx_tdmbrec_audio_enc_DeInit(pPrivate);
    (void)omx_tdmbrec_mp4_mux_DeInit(pComponent, pPrivate);
}

void *omx_tdmbrec_stop_thread(void *pHandle)
{
    OMX_COMPONENTTYPE *const pComponent = static_cast<OMX_COMPONENTTYPE *>(pHandle);
    store_shared(private_record(pComponent)->hStopThread, pthread_self());
    run_stop_procedure(pComponent);
    pthread_exit(nullptr);
}

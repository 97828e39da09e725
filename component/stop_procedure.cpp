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
    if (*phThread != pthread_t{}) {
        (void)pthread_join(*phThread, nullptr);
        *phThread = pthread_t{};
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

// The sink class: its construction and release, and the short entries of the function table.
#include "platform/host/control_internal.h"
#include "platform/host/omx_base_internal.h"
#include "platform/qvr_memory.h"

#include <stdio.h>
#include <string.h>

static uint32_t load_word(const uint32_t &word)
{
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

OMX_STATETYPE omx_base_get_state(const omx_base_sink_PrivateType *pSink)
{
    return static_cast<OMX_STATETYPE>(load_word(pSink->eState));
}

omx_base_transient_t omx_base_get_transient_state(const omx_base_sink_PrivateType *pSink)
{
    return static_cast<omx_base_transient_t>(load_word(pSink->eTransientState));
}

void omx_base_set_state(omx_base_sink_PrivateType *pSink, OMX_STATETYPE eState,
                        omx_base_transient_t eTransientState)
{
    __atomic_store_n(&pSink->eTransientState, eTransientState, __ATOMIC_SEQ_CST);
    __atomic_store_n(&pSink->eState, eState, __ATOMIC_SEQ_CST);
}

OMX_ERRORTYPE omx_base_find_sink(OMX_HANDLETYPE hComponent, omx_base_sink_PrivateType **ppSink)
{
    if (hComponent == nullptr) {
        return OMX_ErrorBadParameter;
    }
    *ppSink = static_cast<omx_base_sink_PrivateType *>(
        static_cast<OMX_COMPONENTTYPE *>(hComponent)->pComponentPrivate);
    if (*ppSink == nullptr || (*ppSink)->pInternal == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_find_valid_sink(OMX_HANDLETYPE hComponent,
                                       omx_base_sink_PrivateType **ppSink)
{
    const OMX_ERRORTYPE error = omx_base_find_sink(hComponent, ppSink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return omx_base_get_state(*ppSink) == OMX_StateInvalid ? OMX_ErrorInvalidState : OMX_ErrorNone;
}

void omx_base_send_event(omx_base_sink_PrivateType *pSink, OMX_EVENTTYPE eEvent, OMX_U32 uiData1,
                         OMX_U32 uiData2)
{
    pthread_mutex_lock(&pSink->pInternal->lock);
    const OMX_CALLBACKTYPE callbacks = pSink->pInternal->stCallbacks;
    const OMX_PTR callback_data = pSink->pCallbackData;
    pthread_mutex_unlock(&pSink->pInternal->lock);
    if (callbacks.EventHandler != nullptr) {
        callbacks.EventHandler(pSink->pComponent, callback_data, eEvent, uiData1, uiData2, nullptr);
    }
}

static OMX_ERRORTYPE get_component_version(OMX_HANDLETYPE hComponent, OMX_STRING pszName,
                                           OMX_VERSIONTYPE *pVersion, OMX_VERSIONTYPE *pSpecVersion,
                                           OMX_UUIDTYPE *pUUID)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (pszName == nullptr || pVersion == nullptr || pSpecVersion == nullptr || pUUID == nullptr) {
        return OMX_ErrorBadParameter;
    }
    memcpy(pszName, sink->pInternal->szName.data(), strlen(sink->pInternal->szName.data()) + 1);
    *pVersion = {.s = {.nVersionMajor = 1}};
    *pSpecVersion = {.nVersion = OMX_VERSION_1_1_2};
    memset(pUUID, 0, sizeof(*pUUID));
    memcpy(pUUID, &hComponent, sizeof(hComponent)); // unique within the process
    return OMX_ErrorNone;
}

// No configuration is known, neither for reading nor for writing.
static OMX_ERRORTYPE reject_config(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE, OMX_PTR pConfig)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return pConfig == nullptr ? OMX_ErrorBadParameter : OMX_ErrorUnsupportedIndex;
}

static OMX_ERRORTYPE get_extension_index(OMX_HANDLETYPE hComponent, OMX_STRING pszName,
                                         OMX_INDEXTYPE *pIndex)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return pszName == nullptr || pIndex == nullptr ? OMX_ErrorBadParameter
                                                   : OMX_ErrorUnsupportedIndex;
}

static OMX_ERRORTYPE get_state(OMX_HANDLETYPE hComponent, OMX_STATETYPE *pState)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (pState == nullptr) {
        return OMX_ErrorBadParameter;
    }
    *pState = omx_base_get_state(sink);
    return OMX_ErrorNone;
}

// No port is ever tunnelled, so that a request without a peer, which takes a tunnel down, is
// fulfilled already.
static OMX_ERRORTYPE component_tunnel_request(OMX_HANDLETYPE hComponent, OMX_U32 uiPort,
                                              OMX_HANDLETYPE hPeer, OMX_U32, OMX_TUNNELSETUPTYPE *)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (omx_base_port(sink, uiPort) == nullptr) {
        return OMX_ErrorBadPortIndex;
    }
    return hPeer == nullptr ? OMX_ErrorNone : OMX_ErrorTunnelingUnsupported;
}

// A sink has no output port.
static OMX_ERRORTYPE fill_this_buffer(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE *pBuffer)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return pBuffer == nullptr ? OMX_ErrorBadParameter : OMX_ErrorBadPortIndex;
}

static OMX_ERRORTYPE set_callbacks(OMX_HANDLETYPE hComponent, OMX_CALLBACKTYPE *pCallbacks,
                                   OMX_PTR pAppData)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(hComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (pCallbacks == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_sink_internal_t *internal = sink->pInternal;
    pthread_mutex_lock(&internal->lock);
    const bool loaded = omx_base_get_state(sink) == OMX_StateLoaded;
    if (loaded) {
        internal->stCallbacks = *pCallbacks;
        sink->pCallbacks = &internal->stCallbacks;
        sink->pCallbackData = pAppData;
    }
    pthread_mutex_unlock(&internal->lock);
    return loaded ? OMX_ErrorNone : OMX_ErrorIncorrectStateOperation;
}

static OMX_ERRORTYPE component_deinit(OMX_HANDLETYPE hComponent)
{
    if (hComponent == nullptr) {
        return OMX_ErrorBadParameter;
    }
    OMX_COMPONENTTYPE *component = static_cast<OMX_COMPONENTTYPE *>(hComponent);
    omx_base_sink_PrivateType *sink =
        static_cast<omx_base_sink_PrivateType *>(component->pComponentPrivate);
    return sink != nullptr ? sink->pfnDestructor(component) : OMX_ErrorNone;
}

static OMX_ERRORTYPE use_egl_image(OMX_HANDLETYPE, OMX_BUFFERHEADERTYPE **, OMX_U32, OMX_PTR,
                                   void *)
{
    return OMX_ErrorNotImplemented;
}

static OMX_ERRORTYPE component_role_enum(OMX_HANDLETYPE, OMX_U8 *, OMX_U32)
{
    return OMX_ErrorNoMore;
}

static void fill_function_table(OMX_COMPONENTTYPE *component)
{
    component->nSize = sizeof(*component);
    component->nVersion.nVersion = OMX_VERSION_1_1_2;
    component->GetComponentVersion = get_component_version;
    component->SendCommand = omx_base_component_SendCommand;
    component->GetParameter = omx_base_component_GetParameter;
    component->SetParameter = omx_base_component_SetParameter;
    component->GetConfig = reject_config;
    component->SetConfig = reject_config;
    component->GetExtensionIndex = get_extension_index;
    component->GetState = get_state;
    component->ComponentTunnelRequest = component_tunnel_request;
    component->UseBuffer = omx_base_component_UseBuffer;
    component->AllocateBuffer = omx_base_component_AllocateBuffer;
    component->FreeBuffer = omx_base_component_FreeBuffer;
    component->EmptyThisBuffer = omx_base_component_EmptyThisBuffer;
    component->FillThisBuffer = fill_this_buffer;
    component->SetCallbacks = set_callbacks;
    component->ComponentDeInit = component_deinit;
    component->UseEGLImage = use_egl_image;
    component->ComponentRoleEnum = component_role_enum;
}

// Makes the internal record, and its lock with it. returns null when there is no memory.
static omx_base_sink_internal_t *create_internal(const char *name)
{
    omx_base_sink_internal_t *internal =
        static_cast<omx_base_sink_internal_t *>(QVR_calloc(1, sizeof(omx_base_sink_internal_t)));
    if (internal == nullptr) {
        return nullptr;
    }
    snprintf(internal->szName.data(), internal->szName.size(), "%s", name);
    if (pthread_mutex_init(&internal->lock, nullptr) == 0) {
        if (pthread_cond_init(&internal->stWork, nullptr) == 0) {
            return internal;
        }
        pthread_mutex_destroy(&internal->lock);
    }
    QVR_free(internal);
    return nullptr;
}

static OMX_ERRORTYPE build_sink(omx_base_sink_PrivateType *sink, const char *name)
{
    sink->pInternal = create_internal(name);
    if (sink->pInternal == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    omx_base_sink_internal_t *internal = sink->pInternal;
    internal->bFlushLockReady = pthread_mutex_init(&sink->lockFlush, nullptr) == 0;
    internal->bFlushAllReady = tsem_init(&sink->semFlushAll, 0) == 0;
    internal->bFlushReady = tsem_init(&sink->semFlush, 0) == 0;
    internal->bBufferThreadSemReady = tsem_init(&sink->semBufferThread, 0) == 0;
    if (!internal->bFlushLockReady || !internal->bFlushAllReady || !internal->bFlushReady ||
        !internal->bBufferThreadSemReady || omx_base_start_message_thread(sink) != 0) {
        return OMX_ErrorInsufficientResources;
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_sink_Constructor(OMX_COMPONENTTYPE *pComponent, OMX_STRING pszName)
{
    if (pComponent == nullptr || pszName == nullptr || pComponent->pComponentPrivate == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_sink_PrivateType *sink =
        static_cast<omx_base_sink_PrivateType *>(pComponent->pComponentPrivate);
    if (sink->pInternal != nullptr) {
        return OMX_ErrorBadParameter;
    }
    fill_function_table(pComponent);
    sink->pComponent = pComponent;
    sink->pfnMessageHandler = omx_base_component_MessageHandler;
    sink->pfnDestructor = omx_base_sink_Destructor;
    for (OMX_PORT_PARAM_TYPE &domain : sink->astPortDomain) {
        domain.nSize = sizeof(domain);
        domain.nVersion.nVersion = OMX_VERSION_1_1_2;
    }
    omx_base_set_state(sink, OMX_StateLoaded, OMX_TransStateNone);
    if (host_call_fails(HOST_CALL_SINK_CONSTRUCTOR)) {
        return OMX_ErrorInsufficientResources;
    }
    return build_sink(sink, pszName);
}

static void release_internal(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (internal->bBufferThreadSemReady) {
        tsem_deinit(&sink->semBufferThread);
    }
    if (internal->bFlushReady) {
        tsem_deinit(&sink->semFlush);
    }
    if (internal->bFlushAllReady) {
        tsem_deinit(&sink->semFlushAll);
    }
    if (internal->bFlushLockReady) {
        pthread_mutex_destroy(&sink->lockFlush);
    }
    pthread_cond_destroy(&internal->stWork);
    pthread_mutex_destroy(&internal->lock);
    QVR_free(internal);
    sink->pInternal = nullptr;
}

// The message thread goes first: it may be in the middle of a flush, which needs the other one.
static void end_threads(omx_base_sink_PrivateType *sink)
{
    omx_base_join_message_thread(sink);
    pthread_mutex_lock(&sink->pInternal->lock);
    omx_base_set_state(sink, OMX_StateInvalid, OMX_TransStateNone);
    pthread_mutex_unlock(&sink->pInternal->lock);
    omx_base_join_buffer_thread(sink);
}

OMX_ERRORTYPE omx_base_sink_Destructor(OMX_COMPONENTTYPE *pComponent)
{
    if (pComponent == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_sink_PrivateType *sink =
        static_cast<omx_base_sink_PrivateType *>(pComponent->pComponentPrivate);
    if (sink == nullptr) {
        return OMX_ErrorNone;
    }
    if (sink->pInternal != nullptr) {
        end_threads(sink);
    }
    if (sink->ppPorts != nullptr) {
        for (OMX_U32 index = 0; index < omx_base_port_count(sink); index++) {
            if (sink->ppPorts[index] != nullptr) {
                omx_base_release_port(sink->ppPorts[index]);
            }
            QVR_free(sink->ppPorts[index]);
        }
        QVR_free(sink->ppPorts);
    }
    if (sink->pInternal != nullptr) {
        release_internal(sink);
    }
    QVR_free(sink);
    pComponent->pComponentPrivate = nullptr;
    return OMX_ErrorNone;
}

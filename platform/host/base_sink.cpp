// The sink class: constructor, destructor and the short entries of the function table.
#include "platform/host/control_internal.h"
#include "platform/host/omx_base_internal.h"
#include "platform/qvr_memory.h"

#include <cstdio>
#include <cstring>

static uint32_t load_word(const uint32_t &word)
{
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

OMX_STATETYPE omx_base_get_state(const omx_base_sink_PrivateType *sink)
{
    return static_cast<OMX_STATETYPE>(load_word(sink->eState));
}

omx_base_transient_t omx_base_get_transient_state(const omx_base_sink_PrivateType *sink)
{
    return static_cast<omx_base_transient_t>(load_word(sink->eTransientState));
}

bool omx_base_has_resources(const omx_base_sink_PrivateType *sink)
{
    const OMX_STATETYPE state = omx_base_get_state(sink);
    return state == OMX_StateIdle || state == OMX_StateExecuting || state == OMX_StatePause;
}

void omx_base_set_state(omx_base_sink_PrivateType *sink, OMX_STATETYPE state,
                        omx_base_transient_t transient_state)
{
    __atomic_store_n(&sink->eTransientState, transient_state, __ATOMIC_SEQ_CST);
    __atomic_store_n(&sink->eState, state, __ATOMIC_SEQ_CST);
}

OMX_ERRORTYPE omx_base_find_sink(OMX_HANDLETYPE handle, omx_base_sink_PrivateType **sink)
{
    if (handle == nullptr) {
        return OMX_ErrorBadParameter;
    }
    *sink = static_cast<omx_base_sink_PrivateType *>(
        static_cast<OMX_COMPONENTTYPE *>(handle)->pComponentPrivate);
    if (*sink == nullptr || (*sink)->pInternal == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_find_valid_sink(OMX_HANDLETYPE handle, omx_base_sink_PrivateType **sink)
{
    const OMX_ERRORTYPE error = omx_base_find_sink(handle, sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return omx_base_get_state(*sink) == OMX_StateInvalid ? OMX_ErrorInvalidState : OMX_ErrorNone;
}

void omx_base_send_event(omx_base_sink_PrivateType *sink, OMX_EVENTTYPE event, OMX_U32 data1,
                         OMX_U32 data2)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    const OMX_CALLBACKTYPE callbacks = sink->pInternal->callbacks;
    const OMX_PTR callback_data = sink->pCallbackData;
    pthread_mutex_unlock(&sink->pInternal->lock);
    if (callbacks.EventHandler != nullptr) {
        callbacks.EventHandler(sink->pComponent, callback_data, event, data1, data2, nullptr);
    }
}

static OMX_ERRORTYPE get_component_version(OMX_HANDLETYPE handle, OMX_STRING name,
                                           OMX_VERSIONTYPE *version, OMX_VERSIONTYPE *spec_version,
                                           OMX_UUIDTYPE *uuid)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (name == nullptr || version == nullptr || spec_version == nullptr || uuid == nullptr) {
        return OMX_ErrorBadParameter;
    }
    memcpy(name, sink->pInternal->name.data(), strlen(sink->pInternal->name.data()) + 1);
    *version = {.s = {.nVersionMajor = 1}};
    *spec_version = {.nVersion = OMX_VERSION_1_1_2};
    memset(uuid, 0, sizeof(*uuid));
    memcpy(uuid, &handle, sizeof(handle)); // unique within the process
    return OMX_ErrorNone;
}

// There are no configuration indexes.
static OMX_ERRORTYPE reject_config(OMX_HANDLETYPE handle, OMX_INDEXTYPE, OMX_PTR config)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return config == nullptr ? OMX_ErrorBadParameter : OMX_ErrorUnsupportedIndex;
}

static OMX_ERRORTYPE get_extension_index(OMX_HANDLETYPE handle, OMX_STRING name,
                                         OMX_INDEXTYPE *index)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return name == nullptr || index == nullptr ? OMX_ErrorBadParameter : OMX_ErrorUnsupportedIndex;
}

static OMX_ERRORTYPE get_state(OMX_HANDLETYPE handle, OMX_STATETYPE *state)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (state == nullptr) {
        return OMX_ErrorBadParameter;
    }
    *state = omx_base_get_state(sink);
    return OMX_ErrorNone;
}

// No port is ever tunnelled. A request without a peer ends a tunnel, so it has nothing to do.
static OMX_ERRORTYPE component_tunnel_request(OMX_HANDLETYPE handle, OMX_U32 port_index,
                                              OMX_HANDLETYPE peer, OMX_U32, OMX_TUNNELSETUPTYPE *)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (omx_base_port(sink, port_index) == nullptr) {
        return OMX_ErrorBadPortIndex;
    }
    return peer == nullptr ? OMX_ErrorNone : OMX_ErrorTunnelingUnsupported;
}

// A sink has no output port.
static OMX_ERRORTYPE fill_this_buffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE *buffer)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return buffer == nullptr ? OMX_ErrorBadParameter : OMX_ErrorBadPortIndex;
}

static OMX_ERRORTYPE set_callbacks(OMX_HANDLETYPE handle, OMX_CALLBACKTYPE *callbacks,
                                   OMX_PTR app_data)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (callbacks == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_sink_internal_t *internal = sink->pInternal;
    pthread_mutex_lock(&internal->lock);
    const bool loaded = omx_base_get_state(sink) == OMX_StateLoaded;
    if (loaded) {
        internal->callbacks = *callbacks;
        sink->pCallbacks = &internal->callbacks;
        sink->pCallbackData = app_data;
    }
    pthread_mutex_unlock(&internal->lock);
    return loaded ? OMX_ErrorNone : OMX_ErrorIncorrectStateOperation;
}

static OMX_ERRORTYPE component_deinit(OMX_HANDLETYPE handle)
{
    if (handle == nullptr) {
        return OMX_ErrorBadParameter;
    }
    OMX_COMPONENTTYPE *component = static_cast<OMX_COMPONENTTYPE *>(handle);
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

// Allocates the internal record and initialises its lock.
// returns: the record, or null when there is no memory
static omx_base_sink_internal_t *create_internal(const char *name)
{
    omx_base_sink_internal_t *internal =
        static_cast<omx_base_sink_internal_t *>(QVR_calloc(1, sizeof(omx_base_sink_internal_t)));
    if (internal == nullptr) {
        return nullptr;
    }
    snprintf(internal->name.data(), internal->name.size(), "%s", name);
    if (pthread_mutex_init(&internal->lock, nullptr) == 0) {
        if (pthread_cond_init(&internal->work, nullptr) == 0) {
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
    internal->flush_lock_ready = pthread_mutex_init(&sink->lockFlush, nullptr) == 0;
    internal->sem_flush_all_ready = tsem_init(&sink->semFlushAll, 0) == 0;
    internal->sem_flush_ready = tsem_init(&sink->semFlush, 0) == 0;
    internal->sem_buffer_thread_ready = tsem_init(&sink->semBufferThread, 0) == 0;
    if (!internal->flush_lock_ready || !internal->sem_flush_all_ready ||
        !internal->sem_flush_ready || !internal->sem_buffer_thread_ready ||
        omx_base_start_message_thread(sink) != 0) {
        return OMX_ErrorInsufficientResources;
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_sink_Constructor(OMX_COMPONENTTYPE *component, OMX_STRING name)
{
    if (component == nullptr || name == nullptr || component->pComponentPrivate == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_sink_PrivateType *sink =
        static_cast<omx_base_sink_PrivateType *>(component->pComponentPrivate);
    if (sink->pInternal != nullptr) {
        return OMX_ErrorBadParameter;
    }
    fill_function_table(component);
    sink->pComponent = component;
    sink->pfnMessageHandler = omx_base_component_MessageHandler;
    sink->pfnDestructor = omx_base_sink_Destructor;
    for (OMX_PORT_PARAM_TYPE &domain : sink->astPortDomain) {
        domain.nSize = sizeof(domain);
        domain.nVersion.nVersion = OMX_VERSION_1_1_2;
    }
    omx_base_set_state(sink, OMX_StateLoaded, OMX_TransStateNone);
    if (host_call_fails(kHostCallSinkConstructor)) {
        return OMX_ErrorInsufficientResources;
    }
    return build_sink(sink, name);
}

static void release_internal(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (internal->sem_buffer_thread_ready) {
        tsem_deinit(&sink->semBufferThread);
    }
    if (internal->sem_flush_ready) {
        tsem_deinit(&sink->semFlush);
    }
    if (internal->sem_flush_all_ready) {
        tsem_deinit(&sink->semFlushAll);
    }
    if (internal->flush_lock_ready) {
        pthread_mutex_destroy(&sink->lockFlush);
    }
    pthread_cond_destroy(&internal->work);
    pthread_mutex_destroy(&internal->lock);
    QVR_free(internal);
    sink->pInternal = nullptr;
}

// The message thread ends first: it may be in a flush, which needs the buffer thread.
static void end_threads(omx_base_sink_PrivateType *sink)
{
    omx_base_join_message_thread(sink);
    pthread_mutex_lock(&sink->pInternal->lock);
    omx_base_set_state(sink, OMX_StateInvalid, OMX_TransStateNone);
    pthread_mutex_unlock(&sink->pInternal->lock);
    omx_base_join_buffer_thread(sink);
}

OMX_ERRORTYPE omx_base_sink_Destructor(OMX_COMPONENTTYPE *component)
{
    if (component == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_sink_PrivateType *sink =
        static_cast<omx_base_sink_PrivateType *>(component->pComponentPrivate);
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
    component->pComponentPrivate = nullptr;
    return OMX_ErrorNone;
}

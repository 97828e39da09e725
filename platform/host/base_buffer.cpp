// The buffers of a port: their making and release, and their way to the component and back.
#include "platform/host/omx_base_internal.h"
#include "platform/host/semaphore_queue_internal.h"
#include "platform/qvr_memory.h"

static omx_base_buffer_t *find_buffer(omx_base_port_PrivateType *port,
                                      const OMX_BUFFERHEADERTYPE *header)
{
    omx_base_port_internal_t *internal = port->pInternal;
    for (uint32_t index = 0; index < internal->uiBufferCount; index++) {
        if (internal->astBuffer[index].pHeader == header) {
            return &internal->astBuffer[index];
        }
    }
    return nullptr;
}

static bool port_command_waits(const omx_base_sink_PrivateType *sink, OMX_COMMANDTYPE command,
                               const omx_base_port_PrivateType *port)
{
    return omx_base_command_waits(sink, command, port->pInternal->uiIndex) ||
           omx_base_command_waits(sink, command, OMX_ALL);
}

// Whether a port can be given a buffer now; a command that still waits counts.
static bool may_add_buffer(const omx_base_sink_PrivateType *sink,
                           const omx_base_port_PrivateType *port)
{
    const omx_base_transient_t transient = omx_base_get_transient_state(sink);
    const omx_base_change_t change = port->pInternal->eChange;
    const bool enabled = port->stPortDefinition.bEnabled != 0;
    switch (omx_base_get_state(sink)) {
    case OMX_StateLoaded:
    case OMX_StateWaitForResources:
        return enabled && (transient == OMX_TransStateLoadedToIdle ||
                           omx_base_command_waits(sink, OMX_CommandStateSet, OMX_StateIdle));
    case OMX_StateIdle:
    case OMX_StateExecuting:
    case OMX_StatePause:
        return transient == OMX_TransStateNone &&
               (port_command_waits(sink, OMX_CommandPortEnable, port) ||
                change == OMX_ChangeEnable || (change == OMX_ChangeNone && !enabled));
    default:
        return false;
    }
}

static void release_buffer(omx_base_buffer_t *buffer)
{
    QVR_free(buffer->pData);
    QVR_free(buffer->pHeader);
    *buffer = {};
}

// Acquires the header, and the memory when the client gives none.
static OMX_ERRORTYPE acquire_buffer(omx_base_buffer_t *buffer, OMX_U32 size, OMX_U8 *client_data)
{
    buffer->pHeader =
        static_cast<OMX_BUFFERHEADERTYPE *>(QVR_calloc(1, sizeof(OMX_BUFFERHEADERTYPE)));
    if (buffer->pHeader == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    if (client_data == nullptr) {
        buffer->pData = QVR_malloc(size);
        if (buffer->pData == nullptr) {
            release_buffer(buffer);
            return OMX_ErrorInsufficientResources;
        }
    }
    OMX_BUFFERHEADERTYPE *header = buffer->pHeader;
    header->nSize = sizeof(*header);
    header->nVersion.nVersion = OMX_VERSION_1_1_2;
    header->pBuffer = client_data != nullptr ? client_data : static_cast<OMX_U8 *>(buffer->pData);
    header->nAllocLen = size;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE add_buffer_locked(omx_base_sink_PrivateType *sink,
                                       omx_base_port_PrivateType *port, OMX_U32 size,
                                       OMX_U8 *client_data, OMX_BUFFERHEADERTYPE **added)
{
    OMX_PARAM_PORTDEFINITIONTYPE &definition = port->stPortDefinition;
    omx_base_port_internal_t *internal = port->pInternal;
    if (size == 0 || size < definition.nBufferSize) {
        return OMX_ErrorBadParameter;
    }
    if (!may_add_buffer(sink, port) || internal->uiBufferCount >= definition.nBufferCountActual) {
        return OMX_ErrorIncorrectStateOperation;
    }
    omx_base_buffer_t buffer = {};
    const OMX_ERRORTYPE error = acquire_buffer(&buffer, size, client_data);
    if (error != OMX_ErrorNone) {
        return error;
    }
    buffer.pHeader->nInputPortIndex = internal->uiIndex;
    buffer.pHeader->pInputPortPrivate = port;
    internal->astBuffer[internal->uiBufferCount++] = buffer;
    if (internal->uiBufferCount == definition.nBufferCountActual) {
        definition.bPopulated = OMX_TRUE;
        omx_base_notify_message_thread(sink);
    }
    *added = buffer.pHeader;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE add_buffer(OMX_HANDLETYPE component, OMX_BUFFERHEADERTYPE **header,
                                OMX_U32 port_index, OMX_PTR app_private, OMX_U32 size,
                                OMX_U8 *client_data)
{
    omx_base_sink_PrivateType *sink = nullptr;
    OMX_ERRORTYPE error = omx_base_find_valid_sink(component, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (header == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_port_PrivateType *port = omx_base_port(sink, port_index);
    if (port == nullptr) {
        return OMX_ErrorBadPortIndex;
    }
    pthread_mutex_lock(&sink->pInternal->lock);
    error = add_buffer_locked(sink, port, size, client_data, header);
    if (error == OMX_ErrorNone) {
        (*header)->pAppPrivate = app_private;
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    return error;
}

OMX_ERRORTYPE omx_base_component_UseBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE **buffer_out,
                                           OMX_U32 port_index, OMX_PTR app_private, OMX_U32 size,
                                           OMX_U8 *data)
{
    if (data == nullptr) {
        return OMX_ErrorBadParameter;
    }
    return add_buffer(handle, buffer_out, port_index, app_private, size, data);
}

OMX_ERRORTYPE omx_base_component_AllocateBuffer(OMX_HANDLETYPE handle,
                                                OMX_BUFFERHEADERTYPE **buffer_out,
                                                OMX_U32 port_index, OMX_PTR app_private,
                                                OMX_U32 size)
{
    return add_buffer(handle, buffer_out, port_index, app_private, size, nullptr);
}

// Whether a port that loses a buffer now goes without it against the client's own commands.
static bool is_missed(const omx_base_sink_PrivateType *sink, const omx_base_port_PrivateType *port)
{
    const OMX_STATETYPE state = omx_base_get_state(sink);
    return (state == OMX_StateIdle || state == OMX_StateExecuting || state == OMX_StatePause) &&
           omx_base_get_transient_state(sink) == OMX_TransStateNone &&
           port->stPortDefinition.bEnabled != 0 && port->stPortDefinition.bPopulated != 0 &&
           !omx_base_command_waits(sink, OMX_CommandStateSet, OMX_StateLoaded) &&
           !port_command_waits(sink, OMX_CommandPortDisable, port);
}

static OMX_ERRORTYPE free_buffer_locked(omx_base_sink_PrivateType *sink,
                                        omx_base_port_PrivateType *port,
                                        const OMX_BUFFERHEADERTYPE *header)
{
    omx_base_port_internal_t *internal = port->pInternal;
    omx_base_buffer_t *buffer = find_buffer(port, header);
    if (buffer == nullptr) {
        return OMX_ErrorBadParameter;
    }
    if (buffer->bHeld) {
        return OMX_ErrorIncorrectStateOperation;
    }
    internal->bUnpopulated = internal->bUnpopulated || is_missed(sink, port);
    release_buffer(buffer);
    *buffer = internal->astBuffer[--internal->uiBufferCount];
    internal->astBuffer[internal->uiBufferCount] = {};
    port->stPortDefinition.bPopulated = OMX_FALSE;
    if (internal->uiBufferCount == 0 || internal->bUnpopulated) {
        omx_base_notify_message_thread(sink);
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_component_FreeBuffer(OMX_HANDLETYPE handle, OMX_U32 port_index,
                                            OMX_BUFFERHEADERTYPE *header)
{
    omx_base_sink_PrivateType *sink = nullptr;
    OMX_ERRORTYPE error = omx_base_find_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (header == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_base_port_PrivateType *port = omx_base_port(sink, port_index);
    if (port == nullptr) {
        return OMX_ErrorBadPortIndex;
    }
    pthread_mutex_lock(&sink->pInternal->lock);
    error = free_buffer_locked(sink, port, header);
    pthread_mutex_unlock(&sink->pInternal->lock);
    return error;
}

void omx_base_free_buffers(omx_base_port_PrivateType *port)
{
    omx_base_port_internal_t *internal = port->pInternal;
    while (internal->uiBufferCount != 0) {
        release_buffer(&internal->astBuffer[--internal->uiBufferCount]);
    }
}

static OMX_ERRORTYPE check_header(const OMX_BUFFERHEADERTYPE *header,
                                  const omx_base_port_PrivateType *port)
{
    const OMX_ERRORTYPE error =
        omx_base_check_head(header->nSize, header->nVersion, sizeof(*header));
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (header->nInputPortIndex != port->pInternal->uiIndex) {
        return OMX_ErrorBadPortIndex;
    }
    if (header->nOffset > header->nAllocLen ||
        header->nFilledLen > header->nAllocLen - header->nOffset ||
        (header->pBuffer == nullptr && header->nFilledLen != 0)) {
        return OMX_ErrorBadParameter;
    }
    return OMX_ErrorNone;
}

// Gives the oldest waiting mark to a buffer that carries none.
static void apply_mark(omx_base_port_internal_t *internal, OMX_BUFFERHEADERTYPE *header)
{
    if (internal->uiMarkCount == 0 || header->hMarkTargetComponent != nullptr) {
        return;
    }
    header->hMarkTargetComponent = internal->astMark[internal->uiFirstMark].hMarkTargetComponent;
    header->pMarkData = internal->astMark[internal->uiFirstMark].pMarkData;
    internal->uiFirstMark = (internal->uiFirstMark + 1) % kMarkCapacity;
    internal->uiMarkCount--;
}

static OMX_ERRORTYPE empty_buffer_locked(omx_base_sink_PrivateType *sink,
                                         OMX_BUFFERHEADERTYPE *header)
{
    const OMX_STATETYPE state = omx_base_get_state(sink);
    if ((state != OMX_StateIdle && state != OMX_StateExecuting && state != OMX_StatePause) ||
        omx_base_get_transient_state(sink) != OMX_TransStateNone) {
        return OMX_ErrorIncorrectStateOperation;
    }
    // The header is not looked into before it is known.
    omx_base_port_PrivateType *port = nullptr;
    omx_base_buffer_t *buffer = nullptr;
    omx_base_for_ports(sink, OMX_ALL, [&](omx_base_port_PrivateType *candidate) {
        omx_base_buffer_t *found = find_buffer(candidate, header);
        if (found != nullptr) {
            port = candidate;
            buffer = found;
        }
    });
    if (buffer == nullptr) {
        return OMX_ErrorBadParameter;
    }
    if (buffer->bHeld || !port->stPortDefinition.bEnabled || !port->stPortDefinition.bPopulated) {
        return OMX_ErrorIncorrectStateOperation;
    }
    const OMX_ERRORTYPE error = check_header(header, port);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (queue(port->pBufferQueue, header) != 0) {
        return OMX_ErrorInsufficientResources;
    }
    buffer->bHeld = true;
    apply_mark(port->pInternal, header); // nobody takes the buffer before its count is up
    tsem_up(port->pBufferSem);
    tsem_up(&sink->semBufferThread);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_component_EmptyThisBuffer(OMX_HANDLETYPE handle,
                                                 OMX_BUFFERHEADERTYPE *header)
{
    omx_base_sink_PrivateType *sink = nullptr;
    OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (header == nullptr) {
        return OMX_ErrorBadParameter;
    }
    pthread_mutex_lock(&sink->pInternal->lock);
    error = empty_buffer_locked(sink, header);
    pthread_mutex_unlock(&sink->pInternal->lock);
    return error;
}

// A mark for this component is for one trip of the buffer: the client's next use of it is a new
// one.
static void take_off_mark(const omx_base_sink_PrivateType *sink, OMX_BUFFERHEADERTYPE *header)
{
    if (header->hMarkTargetComponent == sink->pComponent) {
        header->hMarkTargetComponent = nullptr;
        header->pMarkData = nullptr;
    }
}

OMX_ERRORTYPE omx_base_return_buffer(omx_base_port_PrivateType *port, OMX_BUFFERHEADERTYPE *header)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_sink(port->pComponent, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    pthread_mutex_lock(&sink->pInternal->lock);
    omx_base_buffer_t *buffer = find_buffer(port, header);
    const bool held = buffer != nullptr && buffer->bHeld;
    if (held) {
        buffer->bHeld = false;
        take_off_mark(sink, header);
    }
    const OMX_CALLBACKTYPE callbacks = sink->pInternal->stCallbacks;
    const OMX_PTR callback_data = sink->pCallbackData;
    pthread_mutex_unlock(&sink->pInternal->lock);
    if (!held) {
        return OMX_ErrorBadParameter;
    }
    if (callbacks.EmptyBufferDone == nullptr) {
        return OMX_ErrorNone;
    }
    return callbacks.EmptyBufferDone(sink->pComponent, callback_data, header);
}

uint32_t omx_base_collect_held(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port,
                               bool all,
                               std::array<OMX_BUFFERHEADERTYPE *, QUEUE_CAPACITY> *collected)
{
    omx_base_port_internal_t *internal = port->pInternal;
    std::array<bool, QUEUE_CAPACITY> queued = {};
    uint32_t count = 0;
    pthread_mutex_lock(&sink->pInternal->lock);
    while (void *element = queue_take(port->pBufferQueue)) {
        OMX_BUFFERHEADERTYPE *header = static_cast<OMX_BUFFERHEADERTYPE *>(element);
        queued[static_cast<size_t>(find_buffer(port, header) - internal->astBuffer.data())] = true;
        (*collected)[count++] = header;
    }
    tsem_reset(port->pBufferSem);
    for (uint32_t index = 0; all && index < internal->uiBufferCount; index++) {
        if (internal->astBuffer[index].bHeld && !queued[index]) {
            (*collected)[count++] = internal->astBuffer[index].pHeader;
        }
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    return count;
}

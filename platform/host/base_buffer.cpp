// The buffers of a port: allocation, release, and the exchange with the client.
#include "platform/host/omx_base_internal.h"
#include "platform/host/semaphore_queue_internal.h"
#include "platform/qvr_memory.h"

static omx_base_buffer_t *find_buffer(omx_base_port_PrivateType *port,
                                      const OMX_BUFFERHEADERTYPE *header)
{
    omx_base_port_internal_t *internal = port->pInternal;
    for (uint32_t index = 0; index < internal->buffer_count; index++) {
        if (internal->buffers[index].header == header) {
            return &internal->buffers[index];
        }
    }
    return nullptr;
}

static bool port_command_waits(const omx_base_sink_PrivateType *sink, OMX_COMMANDTYPE command,
                               const omx_base_port_PrivateType *port)
{
    return omx_base_command_waits(sink, command, port->pInternal->index) ||
           omx_base_command_waits(sink, command, OMX_ALL);
}

// returns: whether the port may get a buffer now; a queued command counts as carried out
static bool may_add_buffer(const omx_base_sink_PrivateType *sink,
                           const omx_base_port_PrivateType *port)
{
    const omx_base_transient_t transient = omx_base_get_transient_state(sink);
    const omx_base_change_t change = port->pInternal->change;
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
               (port_command_waits(sink, OMX_CommandPortEnable, port) || change == kChangeEnable ||
                (change == kChangeNone && !enabled));
    default:
        return false;
    }
}

static void release_buffer(omx_base_buffer_t *buffer)
{
    QVR_free(buffer->data);
    QVR_free(buffer->header);
    *buffer = {};
}

// Allocates the header, and the memory unless the client provides it.
static OMX_ERRORTYPE acquire_buffer(omx_base_buffer_t *buffer, OMX_U32 size_bytes,
                                    OMX_U8 *client_data)
{
    buffer->header =
        static_cast<OMX_BUFFERHEADERTYPE *>(QVR_calloc(1, sizeof(OMX_BUFFERHEADERTYPE)));
    if (buffer->header == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    if (client_data == nullptr) {
        buffer->data = QVR_malloc(size_bytes);
        if (buffer->data == nullptr) {
            release_buffer(buffer);
            return OMX_ErrorInsufficientResources;
        }
    }
    OMX_BUFFERHEADERTYPE *header = buffer->header;
    header->nSize = sizeof(*header);
    header->nVersion.nVersion = OMX_VERSION_1_1_2;
    header->pBuffer = client_data != nullptr ? client_data : static_cast<OMX_U8 *>(buffer->data);
    header->nAllocLen = size_bytes;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE add_buffer_locked(omx_base_sink_PrivateType *sink,
                                       omx_base_port_PrivateType *port, OMX_U32 size_bytes,
                                       OMX_U8 *client_data, OMX_BUFFERHEADERTYPE **added)
{
    OMX_PARAM_PORTDEFINITIONTYPE &definition = port->stPortDefinition;
    omx_base_port_internal_t *internal = port->pInternal;
    if (size_bytes == 0 || size_bytes < definition.nBufferSize) {
        return OMX_ErrorBadParameter;
    }
    if (!may_add_buffer(sink, port) || internal->buffer_count >= definition.nBufferCountActual) {
        return OMX_ErrorIncorrectStateOperation;
    }
    omx_base_buffer_t buffer = {};
    const OMX_ERRORTYPE error = acquire_buffer(&buffer, size_bytes, client_data);
    if (error != OMX_ErrorNone) {
        return error;
    }
    buffer.header->nInputPortIndex = internal->index;
    buffer.header->pInputPortPrivate = port;
    internal->buffers[internal->buffer_count++] = buffer;
    if (internal->buffer_count == definition.nBufferCountActual) {
        definition.bPopulated = OMX_TRUE;
        omx_base_notify_message_thread(sink);
    }
    *added = buffer.header;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE add_buffer(OMX_HANDLETYPE component, OMX_BUFFERHEADERTYPE **header,
                                OMX_U32 port_index, OMX_PTR app_private, OMX_U32 size_bytes,
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
    error = add_buffer_locked(sink, port, size_bytes, client_data, header);
    if (error == OMX_ErrorNone) {
        (*header)->pAppPrivate = app_private;
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    return error;
}

OMX_ERRORTYPE omx_base_component_UseBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE **header,
                                           OMX_U32 port_index, OMX_PTR app_private,
                                           OMX_U32 size_bytes, OMX_U8 *data)
{
    if (data == nullptr) {
        return OMX_ErrorBadParameter;
    }
    return add_buffer(handle, header, port_index, app_private, size_bytes, data);
}

OMX_ERRORTYPE omx_base_component_AllocateBuffer(OMX_HANDLETYPE handle,
                                                OMX_BUFFERHEADERTYPE **header, OMX_U32 port_index,
                                                OMX_PTR app_private, OMX_U32 size_bytes)
{
    return add_buffer(handle, header, port_index, app_private, size_bytes, nullptr);
}

// returns: whether the port is in use and no queued command lets it lose a buffer
static bool needs_its_buffers(const omx_base_sink_PrivateType *sink,
                              const omx_base_port_PrivateType *port)
{
    return omx_base_has_resources(sink) &&
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
    if (buffer->is_held) {
        return OMX_ErrorIncorrectStateOperation;
    }
    internal->has_lost_buffer = internal->has_lost_buffer || needs_its_buffers(sink, port);
    release_buffer(buffer);
    *buffer = internal->buffers[--internal->buffer_count];
    internal->buffers[internal->buffer_count] = {};
    port->stPortDefinition.bPopulated = OMX_FALSE;
    if (internal->buffer_count == 0 || internal->has_lost_buffer) {
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
    while (internal->buffer_count != 0) {
        release_buffer(&internal->buffers[--internal->buffer_count]);
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
    if (header->nInputPortIndex != port->pInternal->index) {
        return OMX_ErrorBadPortIndex;
    }
    if (header->nOffset > header->nAllocLen ||
        header->nFilledLen > header->nAllocLen - header->nOffset ||
        (header->pBuffer == nullptr && header->nFilledLen != 0)) {
        return OMX_ErrorBadParameter;
    }
    return OMX_ErrorNone;
}

// Attaches the oldest waiting mark to a buffer that has none.
static void apply_mark(omx_base_port_internal_t *internal, OMX_BUFFERHEADERTYPE *header)
{
    if (internal->mark_count == 0 || header->hMarkTargetComponent != nullptr) {
        return;
    }
    header->hMarkTargetComponent = internal->marks[internal->first_mark].hMarkTargetComponent;
    header->pMarkData = internal->marks[internal->first_mark].pMarkData;
    internal->first_mark = (internal->first_mark + 1) % kMarkCapacity;
    internal->mark_count--;
}

static OMX_ERRORTYPE empty_buffer_locked(omx_base_sink_PrivateType *sink,
                                         OMX_BUFFERHEADERTYPE *header)
{
    if (!omx_base_has_resources(sink) || omx_base_get_transient_state(sink) != OMX_TransStateNone) {
        return OMX_ErrorIncorrectStateOperation;
    }
    // An unknown header is not dereferenced.
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
    if (buffer->is_held || !port->stPortDefinition.bEnabled || !port->stPortDefinition.bPopulated) {
        return OMX_ErrorIncorrectStateOperation;
    }
    const OMX_ERRORTYPE error = check_header(header, port);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (queue(port->pBufferQueue, header) != 0) {
        return OMX_ErrorInsufficientResources;
    }
    buffer->is_held = true;
    apply_mark(port->pInternal, header); // before the count is up, no thread takes the buffer
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

// A mark for this component holds for one exchange; the client's next use of the buffer starts
// without it.
static void remove_mark(const omx_base_sink_PrivateType *sink, OMX_BUFFERHEADERTYPE *header)
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
    const bool held = buffer != nullptr && buffer->is_held;
    if (held) {
        buffer->is_held = false;
        remove_mark(sink, header);
    }
    const OMX_CALLBACKTYPE callbacks = sink->pInternal->callbacks;
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
    for (void *element = queue_take(port->pBufferQueue); element != nullptr;
         element = queue_take(port->pBufferQueue)) {
        OMX_BUFFERHEADERTYPE *header = static_cast<OMX_BUFFERHEADERTYPE *>(element);
        queued[static_cast<size_t>(find_buffer(port, header) - internal->buffers.data())] = true;
        (*collected)[count++] = header;
    }
    tsem_reset(port->pBufferSem);
    for (uint32_t index = 0; all && index < internal->buffer_count; index++) {
        if (internal->buffers[index].is_held && !queued[index]) {
            (*collected)[count++] = internal->buffers[index].header;
        }
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    return count;
}

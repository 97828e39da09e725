// The command queue from the client to the message thread.
#include "platform/host/control_internal.h"
#include "platform/host/omx_base_internal.h"

#include <cerrno>

void omx_base_notify_message_thread(omx_base_sink_PrivateType *sink)
{
    sink->pInternal->ports_changed = true;
    pthread_cond_signal(&sink->pInternal->work);
}

bool omx_base_command_waits(const omx_base_sink_PrivateType *sink, OMX_COMMANDTYPE command,
                            OMX_U32 param)
{
    const omx_base_sink_internal_t *internal = sink->pInternal;
    for (uint32_t index = 0; index < internal->slot_count; index++) {
        const uint32_t slot = (internal->first_slot + index) % kMessageCapacity;
        const omx_base_message_t &message = internal->slots[slot].message;
        if (message.eCommand == command && message.uiParam == param) {
            return true;
        }
    }
    return false;
}

static OMX_ERRORTYPE check_command(const omx_base_sink_PrivateType *sink, OMX_COMMANDTYPE command,
                                   OMX_U32 param, const void *data)
{
    switch (command) {
    case OMX_CommandStateSet:
        return param <= OMX_StateWaitForResources ? OMX_ErrorNone : OMX_ErrorBadParameter;
    case OMX_CommandFlush:
    case OMX_CommandPortDisable:
    case OMX_CommandPortEnable:
        return param == OMX_ALL || omx_base_port(sink, param) != nullptr ? OMX_ErrorNone
                                                                         : OMX_ErrorBadPortIndex;
    case OMX_CommandMarkBuffer:
        if (data == nullptr) {
            return OMX_ErrorBadParameter;
        }
        return omx_base_port(sink, param) != nullptr ? OMX_ErrorNone : OMX_ErrorBadPortIndex;
    default:
        return OMX_ErrorBadParameter;
    }
}

static OMX_ERRORTYPE append_command_locked(omx_base_sink_internal_t *internal,
                                           OMX_COMMANDTYPE command, OMX_U32 param, void *data)
{
    if (internal->slot_count == kMessageCapacity) {
        return OMX_ErrorInsufficientResources;
    }
    omx_base_slot_t &slot =
        internal->slots[(internal->first_slot + internal->slot_count) % kMessageCapacity];
    slot.message = {.eCommand = command, .uiParam = param, .pData = data};
    if (command == OMX_CommandMarkBuffer) { // the client's record may not last
        slot.mark = *static_cast<const OMX_MARKTYPE *>(data);
        slot.message.pData = &slot.mark;
    }
    internal->slot_count++;
    pthread_cond_signal(&internal->work);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_component_SendCommand(OMX_HANDLETYPE handle, OMX_COMMANDTYPE command,
                                             OMX_U32 param, OMX_PTR data)
{
    omx_base_sink_PrivateType *sink = nullptr;
    OMX_ERRORTYPE error = omx_base_find_valid_sink(handle, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    error = check_command(sink, command, param, data);
    if (error != OMX_ErrorNone) {
        return error;
    }
    pthread_mutex_lock(&sink->pInternal->lock);
    error = append_command_locked(sink->pInternal, command, param, data);
    pthread_mutex_unlock(&sink->pInternal->lock);
    return error;
}

// Carries out the oldest command.
// thread: the message thread; the lock is held on entry and on return
static void carry_out_command(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    omx_base_message_t message = internal->slots[internal->first_slot].message;
    pthread_mutex_unlock(&internal->lock);
    const OMX_ERRORTYPE error = sink->pfnMessageHandler(sink->pComponent, &message);
    if (error != OMX_ErrorNone) {
        omx_base_send_event(sink, OMX_EventError, error, 0);
    }
    pthread_mutex_lock(&internal->lock);
    internal->first_slot = (internal->first_slot + 1) % kMessageCapacity;
    internal->slot_count--;
}

static void *run_message_thread(void *argument)
{
    omx_base_sink_PrivateType *sink = static_cast<omx_base_sink_PrivateType *>(argument);
    omx_base_sink_internal_t *internal = sink->pInternal;
    pthread_mutex_lock(&internal->lock);
    while (!internal->quit) {
        if (internal->ports_changed) {
            internal->ports_changed = false;
            pthread_mutex_unlock(&internal->lock);
            omx_base_complete_changes(sink);
            pthread_mutex_lock(&internal->lock);
        } else if (internal->slot_count != 0) {
            carry_out_command(sink);
        } else {
            pthread_cond_wait(&internal->work, &internal->lock);
        }
    }
    pthread_mutex_unlock(&internal->lock);
    return nullptr;
}

int omx_base_start_message_thread(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (host_call_fails(kHostCallStartThread)) {
        return EAGAIN;
    }
    const int result = pthread_create(&internal->message_thread, nullptr, run_message_thread, sink);
    internal->message_thread_joinable = result == 0;
    return result;
}

void omx_base_join_message_thread(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (!internal->message_thread_joinable) {
        return;
    }
    pthread_mutex_lock(&internal->lock);
    internal->quit = true;
    pthread_cond_signal(&internal->work);
    pthread_mutex_unlock(&internal->lock);
    pthread_join(internal->message_thread, nullptr);
    internal->message_thread_joinable = false;
}

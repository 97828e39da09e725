// Commands on their way from the client to the message thread.
#include "platform/host/control_internal.h"
#include "platform/host/omx_base_internal.h"

#include <cerrno>

void omx_base_notify_message_thread(omx_base_sink_PrivateType *sink)
{
    sink->pInternal->bPortsChanged = true;
    pthread_cond_signal(&sink->pInternal->stWork);
}

bool omx_base_command_waits(const omx_base_sink_PrivateType *sink, OMX_COMMANDTYPE command,
                            OMX_U32 param)
{
    const omx_base_sink_internal_t *internal = sink->pInternal;
    for (uint32_t index = 0; index < internal->uiSlotCount; index++) {
        const uint32_t slot = (internal->uiFirstSlot + index) % kMessageCapacity;
        const omx_base_message_t &message = internal->astSlot[slot].stMessage;
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
    if (internal->uiSlotCount == kMessageCapacity) {
        return OMX_ErrorInsufficientResources;
    }
    omx_base_slot_t &slot =
        internal->astSlot[(internal->uiFirstSlot + internal->uiSlotCount) % kMessageCapacity];
    slot.stMessage = {.eCommand = command, .uiParam = param, .pData = data};
    if (command == OMX_CommandMarkBuffer) { // the client's record may be gone by then
        slot.stMark = *static_cast<const OMX_MARKTYPE *>(data);
        slot.stMessage.pData = &slot.stMark;
    }
    internal->uiSlotCount++;
    pthread_cond_signal(&internal->stWork);
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

// Carries out the oldest command; the lock is held on entry and on return.
static void carry_out_command(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    omx_base_message_t message = internal->astSlot[internal->uiFirstSlot].stMessage;
    pthread_mutex_unlock(&internal->lock);
    const OMX_ERRORTYPE error = sink->pfnMessageHandler(sink->pComponent, &message);
    if (error != OMX_ErrorNone) {
        omx_base_send_event(sink, OMX_EventError, error, 0);
    }
    pthread_mutex_lock(&internal->lock);
    internal->uiFirstSlot = (internal->uiFirstSlot + 1) % kMessageCapacity;
    internal->uiSlotCount--;
}

static void *run_message_thread(void *argument)
{
    omx_base_sink_PrivateType *sink = static_cast<omx_base_sink_PrivateType *>(argument);
    omx_base_sink_internal_t *internal = sink->pInternal;
    pthread_mutex_lock(&internal->lock);
    while (!internal->bQuit) {
        if (internal->bPortsChanged) {
            internal->bPortsChanged = false;
            pthread_mutex_unlock(&internal->lock);
            omx_base_complete_changes(sink);
            pthread_mutex_lock(&internal->lock);
        } else if (internal->uiSlotCount != 0) {
            carry_out_command(sink);
        } else {
            pthread_cond_wait(&internal->stWork, &internal->lock);
        }
    }
    pthread_mutex_unlock(&internal->lock);
    return nullptr;
}

int omx_base_start_message_thread(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (host_call_fails(HOST_CALL_START_THREAD)) {
        return EAGAIN;
    }
    const int result = pthread_create(&internal->hMessageThread, nullptr, run_message_thread, sink);
    internal->bMessageThreadJoinable = result == 0;
    return result;
}

void omx_base_join_message_thread(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (!internal->bMessageThreadJoinable) {
        return;
    }
    pthread_mutex_lock(&internal->lock);
    internal->bQuit = true;
    pthread_cond_signal(&internal->stWork);
    pthread_mutex_unlock(&internal->lock);
    pthread_join(internal->hMessageThread, nullptr);
    internal->bMessageThreadJoinable = false;
}

// The state machine and the port commands.
// thread: the message thread
#include "platform/host/omx_base_internal.h"

#include <utility>

// For each state, one bit per state that may follow; Invalid always may.
// source: OpenMAX IL 1.1.2, 3.1.1.2
// clang-format off
static constexpr std::array<uint32_t, 6> kNextStates = {
    0,                                                                              // Invalid
    1u << OMX_StateIdle   | 1u << OMX_StateWaitForResources,                        // Loaded
    1u << OMX_StateLoaded | 1u << OMX_StateExecuting | 1u << OMX_StatePause,        // Idle
    1u << OMX_StateIdle   | 1u << OMX_StatePause,                                   // Executing
    1u << OMX_StateIdle   | 1u << OMX_StateExecuting,                               // Pause
    1u << OMX_StateLoaded | 1u << OMX_StateIdle,                                    // WaitForResources
};
// clang-format on

static void set_state(omx_base_sink_PrivateType *sink, OMX_STATETYPE state,
                      omx_base_transient_t transient)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    omx_base_set_state(sink, state, transient);
    pthread_mutex_unlock(&sink->pInternal->lock);
    tsem_up(&sink->semBufferThread);
}

static void send_complete(omx_base_sink_PrivateType *sink, OMX_COMMANDTYPE command, OMX_U32 param)
{
    omx_base_send_event(sink, OMX_EventCmdComplete, command, param);
}

// Sets the state that a pending transition leads to, if it is complete. One lock covers check and
// change, so that no buffer is added or freed between them.
// returns: whether it was complete
static bool end_transition(omx_base_sink_PrivateType *sink, omx_base_transient_t transient,
                           OMX_STATETYPE target)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    const bool complete = omx_base_get_transient_state(sink) == transient &&
                          (transient == OMX_TransStateLoadedToIdle ? omx_base_ports_populated(sink)
                                                                   : omx_base_ports_empty(sink));
    if (complete) {
        omx_base_set_state(sink, target, OMX_TransStateNone);
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    return complete;
}

static void complete_idle(omx_base_sink_PrivateType *sink)
{
    const OMX_STATETYPE origin = omx_base_get_state(sink);
    if (!end_transition(sink, OMX_TransStateLoadedToIdle, OMX_StateIdle)) {
        return;
    }
    if (omx_base_start_buffer_thread(sink) != 0) {
        set_state(sink, origin, OMX_TransStateNone);
        omx_base_flush(sink, OMX_ALL); // the client may have emptied buffers meanwhile
        omx_base_send_event(sink, OMX_EventError, OMX_ErrorInsufficientResources, 0);
        return;
    }
    send_complete(sink, OMX_CommandStateSet, OMX_StateIdle);
}

static void complete_loaded(omx_base_sink_PrivateType *sink)
{
    if (!end_transition(sink, OMX_TransStateIdleToLoaded, OMX_StateLoaded)) {
        return;
    }
    omx_base_join_buffer_thread(sink);
    pthread_mutex_lock(&sink->pInternal->lock);
    omx_base_for_ports(sink, OMX_ALL,
                       [](omx_base_port_PrivateType *port) { port->pInternal->mark_count = 0; });
    pthread_mutex_unlock(&sink->pInternal->lock);
    send_complete(sink, OMX_CommandStateSet, OMX_StateLoaded);
}

// Ends the pending change of one port if it is complete.
// out: *command: the command that asked for the change
// returns: how many such commands to answer
static uint32_t end_port_change(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port,
                                OMX_COMMANDTYPE *command)
{
    omx_base_port_internal_t *internal = port->pInternal;
    pthread_mutex_lock(&sink->pInternal->lock);
    bool complete = false;
    if (internal->change == kChangeEnable) { // without resources, a port needs no buffers
        complete = !omx_base_has_resources(sink) || port->stPortDefinition.bPopulated != 0;
        *command = OMX_CommandPortEnable;
    } else if (internal->change == kChangeDisable) {
        complete = internal->buffer_count == 0;
        *command = OMX_CommandPortDisable;
    }
    uint32_t answered = 0;
    if (complete) {
        answered = std::exchange(internal->waiting_count, 0);
        internal->change = kChangeNone;
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    return answered;
}

static uint32_t take_overtaken(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    const uint32_t overtaken = std::exchange(port->pInternal->overtaken_count, 0);
    pthread_mutex_unlock(&sink->pInternal->lock);
    return overtaken;
}

static bool take_buffer_loss(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    const bool lost = std::exchange(port->pInternal->has_lost_buffer, false);
    pthread_mutex_unlock(&sink->pInternal->lock);
    return lost;
}

void omx_base_complete_changes(omx_base_sink_PrivateType *sink)
{
    complete_idle(sink);
    complete_loaded(sink);
    omx_base_for_ports(sink, OMX_ALL, [&](omx_base_port_PrivateType *port) {
        const OMX_U32 index = port->pInternal->index;
        for (uint32_t count = take_overtaken(sink, port); count != 0; count--) {
            omx_base_send_event(sink, OMX_EventError, OMX_ErrorIncorrectStateOperation, index);
        }
        OMX_COMMANDTYPE command = OMX_CommandMax;
        for (uint32_t count = end_port_change(sink, port, &command); count != 0; count--) {
            send_complete(sink, command, index);
        }
        if (take_buffer_loss(sink, port)) {
            omx_base_send_event(sink, OMX_EventError, OMX_ErrorPortUnpopulated, index);
        }
    });
}

// Ends every activity at once, returns all buffers to the client and sends an error for each
// command that is not complete.
static OMX_ERRORTYPE enter_invalid(omx_base_sink_PrivateType *sink)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    uint32_t given_up = omx_base_get_transient_state(sink) != OMX_TransStateNone ? 1 : 0;
    omx_base_set_state(sink, OMX_StateInvalid, OMX_TransStateNone);
    omx_base_for_ports(sink, OMX_ALL, [&](omx_base_port_PrivateType *port) {
        port->pInternal->change = kChangeNone;
        given_up += std::exchange(port->pInternal->waiting_count, 0);
    });
    pthread_mutex_unlock(&sink->pInternal->lock);
    omx_base_join_buffer_thread(sink);
    omx_base_flush(sink, OMX_ALL);
    for (; given_up != 0; given_up--) {
        omx_base_send_event(sink, OMX_EventError, OMX_ErrorInvalidState, 0);
    }
    return OMX_ErrorInvalidState;
}

static OMX_ERRORTYPE check_transition(OMX_STATETYPE from, omx_base_transient_t transient,
                                      OMX_STATETYPE target)
{
    if (transient != OMX_TransStateNone) { // only the transition to Idle can be given up
        return transient == OMX_TransStateLoadedToIdle && target == OMX_StateLoaded
                   ? OMX_ErrorNone
                   : OMX_ErrorIncorrectStateTransition;
    }
    if (from == target) {
        return OMX_ErrorSameState;
    }
    return (kNextStates[from] >> target & 1) != 0 ? OMX_ErrorNone
                                                  : OMX_ErrorIncorrectStateTransition;
}

static OMX_ERRORTYPE change_state(omx_base_sink_PrivateType *sink, OMX_STATETYPE target)
{
    const OMX_STATETYPE from = omx_base_get_state(sink);
    const omx_base_transient_t transient = omx_base_get_transient_state(sink);
    if (target == OMX_StateInvalid) {
        return enter_invalid(sink);
    }
    const OMX_ERRORTYPE error = check_transition(from, transient, target);
    if (error != OMX_ErrorNone) {
        return error;
    }

    const bool unloaded = from == OMX_StateLoaded || from == OMX_StateWaitForResources;
    if (target == OMX_StateIdle && unloaded) {
        set_state(sink, from, OMX_TransStateLoadedToIdle);
        omx_base_complete_changes(sink);
        return OMX_ErrorNone;
    }
    if (target == OMX_StateLoaded) {
        set_state(sink, from, OMX_TransStateIdleToLoaded);
        if (transient == OMX_TransStateLoadedToIdle) { // the answer to that command
            omx_base_send_event(sink, OMX_EventError, OMX_ErrorIncorrectStateTransition, 0);
        }
        omx_base_flush(sink, OMX_ALL);
        omx_base_complete_changes(sink);
        return OMX_ErrorNone;
    }
    set_state(sink, target, OMX_TransStateNone);
    if (target == OMX_StateIdle) {
        omx_base_flush(sink, OMX_ALL);
    }
    send_complete(sink, OMX_CommandStateSet, target);
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE flush_port(omx_base_sink_PrivateType *sink, OMX_U32 port_index)
{
    if (!omx_base_has_resources(sink)) {
        return OMX_ErrorIncorrectStateOperation;
    }
    omx_base_flush(sink, port_index);
    omx_base_for_ports(sink, port_index, [&](omx_base_port_PrivateType *port) {
        send_complete(sink, OMX_CommandFlush, port->pInternal->index);
    });
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE change_port(omx_base_sink_PrivateType *sink, OMX_U32 port_index, bool enable)
{
    const omx_base_change_t change = enable ? kChangeEnable : kChangeDisable;
    pthread_mutex_lock(&sink->pInternal->lock);
    omx_base_for_ports(sink, port_index, [&](omx_base_port_PrivateType *port) {
        omx_base_port_internal_t *internal = port->pInternal;
        port->stPortDefinition.bEnabled = enable ? OMX_TRUE : OMX_FALSE;
        if (internal->change != change) {
            internal->overtaken_count += std::exchange(internal->waiting_count, 0);
        }
        internal->change = change;
        internal->waiting_count++;
    });
    pthread_mutex_unlock(&sink->pInternal->lock);
    if (!enable) {
        omx_base_flush(sink, port_index);
    }
    omx_base_complete_changes(sink);
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE mark_buffer(omx_base_sink_PrivateType *sink, OMX_U32 port_index,
                                 const OMX_MARKTYPE *mark)
{
    omx_base_port_PrivateType *port = omx_base_port(sink, port_index);
    if (port == nullptr) {
        return OMX_ErrorBadPortIndex;
    }
    if (mark == nullptr) {
        return OMX_ErrorBadParameter;
    }
    if (!omx_base_has_resources(sink)) {
        return OMX_ErrorIncorrectStateOperation;
    }
    omx_base_port_internal_t *internal = port->pInternal;
    pthread_mutex_lock(&sink->pInternal->lock);
    const bool fits = internal->mark_count < kMarkCapacity;
    if (fits) {
        internal->marks[(internal->first_mark + internal->mark_count) % kMarkCapacity] = *mark;
        internal->mark_count++;
    }
    pthread_mutex_unlock(&sink->pInternal->lock);
    if (!fits) {
        return OMX_ErrorInsufficientResources;
    }
    send_complete(sink, OMX_CommandMarkBuffer, port_index);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_base_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                omx_base_message_t *message)
{
    omx_base_sink_PrivateType *sink = nullptr;
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(component, &sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (message == nullptr) {
        return OMX_ErrorBadParameter;
    }
    switch (message->eCommand) {
    case OMX_CommandStateSet:
        return change_state(sink, static_cast<OMX_STATETYPE>(message->uiParam));
    case OMX_CommandFlush:
        return flush_port(sink, message->uiParam);
    case OMX_CommandPortDisable:
        return change_port(sink, message->uiParam, false);
    case OMX_CommandPortEnable:
        return change_port(sink, message->uiParam, true);
    case OMX_CommandMarkBuffer:
        return mark_buffer(sink, message->uiParam,
                           static_cast<const OMX_MARKTYPE *>(message->pData));
    default:
        return OMX_ErrorBadParameter;
    }
}

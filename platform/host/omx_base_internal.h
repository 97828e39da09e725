// Inside of the base framework: what its units share and a component never sees.
//
// Threads: the client's calls; one message thread, which carries out commands, ends transitions
// and sends events; one buffer thread from Idle on, whose body is the component's.
//
// Locks: omx_base_sink_internal_t::lock first, then a queue's or a semaphore's own mutex. lockFlush
// is taken alone. None is held across a callback, a wait for a semaphore or a join.
#ifndef PLATFORM_HOST_OMX_BASE_INTERNAL_H
#define PLATFORM_HOST_OMX_BASE_INTERNAL_H

#include "platform/omx_base.h"

#include <array>

constexpr uint32_t kMessageCapacity = 64; // commands that can wait
constexpr uint32_t kMarkCapacity = 16;    // marks that can wait on one port
constexpr OMX_U32 kBufferCount = 4;       // of a new port
constexpr OMX_U32 kBufferCountMin = 1;

// A command on its way to the message thread, with a copy of the mark that it may point to.
struct omx_base_slot_t {
    omx_base_message_t stMessage;
    OMX_MARKTYPE stMark;
};

struct omx_base_sink_internal_t {
    pthread_mutex_t lock;  // guards what follows, every port and the changes of the state
    pthread_cond_t stWork; // the message thread waits here
    std::array<char, OMX_MAX_STRINGNAME_SIZE> szName; // constant once constructed
    OMX_CALLBACKTYPE stCallbacks;
    // A command stays in the ring until it has been carried out.
    std::array<omx_base_slot_t, kMessageCapacity> astSlot;
    uint32_t uiFirstSlot;
    uint32_t uiSlotCount;
    bool bPortsChanged;     // a transition may have become complete, an error may wait
    bool bQuit;             // the message thread has to end
    bool bBufferThreadRuns; // its body has not returned
    // Without the lock: the message thread's, and the destructor's when that one is joined.
    bool bBufferThreadJoinable;
    bool bMessageThreadJoinable;
    pthread_t hBufferThread;
    pthread_t hMessageThread;
    // How far the construction came.
    bool bFlushLockReady;
    bool bFlushAllReady;
    bool bFlushReady;
    bool bBufferThreadSemReady;
};

struct omx_base_buffer_t {
    OMX_BUFFERHEADERTYPE *pHeader;
    void *pData; // what AllocateBuffer made; null: the client's own memory
    bool bHeld;  // by the component, from EmptyThisBuffer until its return
};

// A port command that is not complete yet; the opposite one takes its place.
enum omx_base_change_t : uint32_t {
    OMX_ChangeNone = 0,
    OMX_ChangeEnable = 1,
    OMX_ChangeDisable = 2
};

struct omx_base_port_internal_t {
    OMX_U32 uiIndex;
    OMX_PORTDOMAINTYPE eDomain;
    omx_base_change_t eChange;
    uint32_t uiWaiting;   // commands for this change
    uint32_t uiOvertaken; // commands for the opposite change, not answered yet
    bool bUnpopulated;    // lost a buffer while in use, and the client has not been told
    bool bQueueReady;
    bool bSemReady;
    std::array<omx_base_buffer_t, QUEUE_CAPACITY> astBuffer;
    uint32_t uiBufferCount;
    std::array<OMX_MARKTYPE, kMarkCapacity> astMark; // for the next buffers
    uint32_t uiFirstMark;
    uint32_t uiMarkCount;
};

// Finds the sink behind a handle. returns OMX_ErrorNone, OMX_ErrorBadParameter for a null handle,
// OMX_ErrorInvalidComponent when nothing is constructed; the second also OMX_ErrorInvalidState.
[[nodiscard]] OMX_ERRORTYPE omx_base_find_sink(OMX_HANDLETYPE handle,
                                               omx_base_sink_PrivateType **sink_out);
[[nodiscard]] OMX_ERRORTYPE omx_base_find_valid_sink(OMX_HANDLETYPE handle,
                                                     omx_base_sink_PrivateType **sink_out);

// The number of ports that the domain tables tell.
[[nodiscard]] OMX_U32 omx_base_port_count(const omx_base_sink_PrivateType *sink);

// The port with this index, or null.
[[nodiscard]] omx_base_port_PrivateType *omx_base_port(const omx_base_sink_PrivateType *sink,
                                                       OMX_U32 port_index);

// Calls a function for a port, or for every port with OMX_ALL.
template <typename Function>
void omx_base_for_ports(const omx_base_sink_PrivateType *sink, OMX_U32 port_index,
                        Function function)
{
    for (OMX_U32 index = 0; index < omx_base_port_count(sink); index++) {
        omx_base_port_PrivateType *port = omx_base_port(sink, index);
        if (port != nullptr && (port_index == OMX_ALL || port_index == index)) {
            function(port);
        }
    }
}

// Releases what a port constructor made; the record itself stays.
void omx_base_release_port(omx_base_port_PrivateType *port);

// thread: under the lock.
void omx_base_set_state(omx_base_sink_PrivateType *sink, OMX_STATETYPE state,
                        omx_base_transient_t transient_state);

// Tells the client; without any lock.
void omx_base_send_event(omx_base_sink_PrivateType *sink, OMX_EVENTTYPE event, OMX_U32 data1,
                         OMX_U32 data2);

// Starts the message thread. returns an errno value.
[[nodiscard]] int omx_base_start_message_thread(omx_base_sink_PrivateType *sink);
// Ends and joins it, whatever still waits.
void omx_base_join_message_thread(omx_base_sink_PrivateType *sink);
// Makes the message thread look for what is complete; under the lock.
void omx_base_notify_message_thread(omx_base_sink_PrivateType *sink);
// Whether this command waits or is being carried out; under the lock.
[[nodiscard]] bool omx_base_command_waits(const omx_base_sink_PrivateType *sink,
                                          OMX_COMMANDTYPE command, OMX_U32 param);

// Starts the buffer thread, if the component has a body for it. returns an errno value.
[[nodiscard]] int omx_base_start_buffer_thread(omx_base_sink_PrivateType *sink);
// Wakes the buffer thread, whose state tells it to leave, and joins it.
void omx_base_join_buffer_thread(omx_base_sink_PrivateType *sink);
// Gives every buffer that the component holds on a port (OMX_ALL: on every port) back to the
// client. thread: the message thread.
void omx_base_flush(omx_base_sink_PrivateType *sink, OMX_U32 port_index);

// Ends the state transition and the port commands that have become complete, and reports ports
// that lost a buffer. thread: the message thread.
void omx_base_complete_changes(omx_base_sink_PrivateType *sink);

// Whether each enabled port has its buffers; whether no port has any. Under the lock.
[[nodiscard]] bool omx_base_ports_populated(const omx_base_sink_PrivateType *sink);
[[nodiscard]] bool omx_base_ports_empty(const omx_base_sink_PrivateType *sink);

// Clears bHeld and calls EmptyBufferDone; what every port's return-buffer slot points to.
OMX_ERRORTYPE omx_base_return_buffer(omx_base_port_PrivateType *port, OMX_BUFFERHEADERTYPE *header);
// Collects what the component holds on a port, oldest first, and empties its queue; with all also
// what is in nobody's queue. returns how many.
[[nodiscard]] uint32_t
omx_base_collect_held(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port, bool all,
                      std::array<OMX_BUFFERHEADERTYPE *, QUEUE_CAPACITY> *collected);
// Frees every buffer of a port.
void omx_base_free_buffers(omx_base_port_PrivateType *port);

// Entries of the function table.
OMX_ERRORTYPE omx_base_component_SendCommand(OMX_HANDLETYPE handle, OMX_COMMANDTYPE command,
                                             OMX_U32 param, OMX_PTR data);
OMX_ERRORTYPE omx_base_component_UseBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE **buffer_out,
                                           OMX_U32 port_index, OMX_PTR app_private, OMX_U32 size,
                                           OMX_U8 *data);
OMX_ERRORTYPE omx_base_component_AllocateBuffer(OMX_HANDLETYPE handle,
                                                OMX_BUFFERHEADERTYPE **buffer_out,
                                                OMX_U32 port_index, OMX_PTR app_private,
                                                OMX_U32 size);
OMX_ERRORTYPE omx_base_component_FreeBuffer(OMX_HANDLETYPE handle, OMX_U32 port_index,
                                            OMX_BUFFERHEADERTYPE *header);
OMX_ERRORTYPE omx_base_component_EmptyThisBuffer(OMX_HANDLETYPE handle,
                                                 OMX_BUFFERHEADERTYPE *header);

// Checks the head that every record of the standard begins with.
// returns OMX_ErrorNone, OMX_ErrorBadParameter, or OMX_ErrorVersionMismatch.
[[nodiscard]] inline OMX_ERRORTYPE omx_base_check_head(OMX_U32 size, OMX_VERSIONTYPE un_version,
                                                       size_t expected_size)
{
    if (size != expected_size) {
        return OMX_ErrorBadParameter;
    }
    const OMX_VERSIONTYPE own = {.nVersion = OMX_VERSION_1_1_2};
    return un_version.s.nVersionMajor == own.s.nVersionMajor &&
                   un_version.s.nVersionMinor == own.s.nVersionMinor
               ? OMX_ErrorNone
               : OMX_ErrorVersionMismatch;
}

#endif // PLATFORM_HOST_OMX_BASE_INTERNAL_H

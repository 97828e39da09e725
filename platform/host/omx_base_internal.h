// The private records and functions of the base framework.
//
// Threads: the client's; one message thread, which carries out commands, completes transitions and
// sends events; from Idle on one buffer thread, whose body is the component's.
//
// Locks: omx_base_sink_internal_t::lock first, then a queue's or a semaphore's own mutex. lockFlush
// is taken alone. None is held across a callback, a wait for a semaphore or a join.
#ifndef PLATFORM_HOST_OMX_BASE_INTERNAL_H
#define PLATFORM_HOST_OMX_BASE_INTERNAL_H

#include "platform/omx_base.h"

#include <array>

inline constexpr uint32_t kMessageCapacity = 64; // commands that can wait
inline constexpr uint32_t kMarkCapacity = 16;    // marks that can wait on one port
inline constexpr OMX_U32 kBufferCount = 4;       // of a new port
inline constexpr OMX_U32 kBufferCountMin = 1;

// A command for the message thread, with a copy of the mark that it may point to.
struct omx_base_slot_t {
    omx_base_message_t message;
    OMX_MARKTYPE mark;
};

struct omx_base_sink_internal_t {
    pthread_mutex_t lock; // guards the fields below, every port and the changes of the state
    pthread_cond_t work;  // the message thread waits here
    std::array<char, OMX_MAX_STRINGNAME_SIZE> name; // constant once constructed
    OMX_CALLBACKTYPE callbacks;
    // A command stays in the ring until it has been carried out.
    std::array<omx_base_slot_t, kMessageCapacity> slots;
    uint32_t first_slot;
    uint32_t slot_count;
    bool ports_changed;      // a transition may be complete, or a port has lost a buffer
    bool quit;               // the message thread must end
    bool buffer_thread_runs; // its body has not returned
    // Not under the lock: the message thread's, then the destructor's, which has joined it.
    bool buffer_thread_joinable;
    bool message_thread_joinable;
    pthread_t buffer_thread;
    pthread_t message_thread;
    // Set when the object has been initialised.
    bool flush_lock_ready;
    bool sem_flush_all_ready;
    bool sem_flush_ready;
    bool sem_buffer_thread_ready;
};

struct omx_base_buffer_t {
    OMX_BUFFERHEADERTYPE *header;
    void *data;   // from AllocateBuffer; null: the client's own memory
    bool is_held; // by the component, from EmptyThisBuffer until its return
};

// A port command that is not complete yet; the opposite command replaces it.
enum omx_base_change_t : uint32_t { kChangeNone = 0, kChangeEnable = 1, kChangeDisable = 2 };

struct omx_base_port_internal_t {
    OMX_U32 index;
    OMX_PORTDOMAINTYPE domain;
    omx_base_change_t change;
    uint32_t waiting_count;   // commands for this change
    uint32_t overtaken_count; // commands for the opposite change, not answered yet
    bool has_lost_buffer;     // while in use, not reported yet
    bool queue_ready;
    bool sem_ready;
    std::array<omx_base_buffer_t, QUEUE_CAPACITY> buffers;
    uint32_t buffer_count;
    std::array<OMX_MARKTYPE, kMarkCapacity> marks; // for the next buffers
    uint32_t first_mark;
    uint32_t mark_count;
};

// Find the sink of a handle.
// returns: OMX_ErrorNone, OMX_ErrorBadParameter for a null handle, or OMX_ErrorInvalidComponent
//          when the sink is not constructed; the second function also OMX_ErrorInvalidState
[[nodiscard]] OMX_ERRORTYPE omx_base_find_sink(OMX_HANDLETYPE handle,
                                               omx_base_sink_PrivateType **sink);
[[nodiscard]] OMX_ERRORTYPE omx_base_find_valid_sink(OMX_HANDLETYPE handle,
                                                     omx_base_sink_PrivateType **sink);

// returns: the number of ports in the domain tables
[[nodiscard]] OMX_U32 omx_base_port_count(const omx_base_sink_PrivateType *sink);

// returns: the port with this index, or null
[[nodiscard]] omx_base_port_PrivateType *omx_base_port(const omx_base_sink_PrivateType *sink,
                                                       OMX_U32 port_index);

// Calls a function for one port, or with OMX_ALL for every port.
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

// Releases everything that a port constructor made, but not the record itself.
void omx_base_release_port(omx_base_port_PrivateType *port);

// returns: whether the component has its resources: its state is Idle, Executing or Pause
[[nodiscard]] bool omx_base_has_resources(const omx_base_sink_PrivateType *sink);

// thread: any, under the lock
void omx_base_set_state(omx_base_sink_PrivateType *sink, OMX_STATETYPE state,
                        omx_base_transient_t transient_state);

// Calls the client's EventHandler.
// thread: any, without any lock
void omx_base_send_event(omx_base_sink_PrivateType *sink, OMX_EVENTTYPE event, OMX_U32 data1,
                         OMX_U32 data2);

// Starts the message thread.
// returns: 0, or an errno value
[[nodiscard]] int omx_base_start_message_thread(omx_base_sink_PrivateType *sink);
// Ends and joins the message thread; queued commands get no answer.
void omx_base_join_message_thread(omx_base_sink_PrivateType *sink);
// Makes the message thread call omx_base_complete_changes.
// thread: any, under the lock
void omx_base_notify_message_thread(omx_base_sink_PrivateType *sink);
// returns: whether this command is queued or being carried out
// thread: any, under the lock
[[nodiscard]] bool omx_base_command_waits(const omx_base_sink_PrivateType *sink,
                                          OMX_COMMANDTYPE command, OMX_U32 param);

// Starts the buffer thread, if the component has a body for it.
// returns: 0, or an errno value
[[nodiscard]] int omx_base_start_buffer_thread(omx_base_sink_PrivateType *sink);
// Wakes and joins the buffer thread, which leaves because the state has changed.
void omx_base_join_buffer_thread(omx_base_sink_PrivateType *sink);
// Returns every buffer that the component holds on a port (OMX_ALL: on every port) to the client.
// thread: the message thread
void omx_base_flush(omx_base_sink_PrivateType *sink, OMX_U32 port_index);

// Ends the state transition and the port commands that are complete, and reports ports that lost a
// buffer.
// thread: the message thread
void omx_base_complete_changes(omx_base_sink_PrivateType *sink);

// returns: whether each enabled port has all its buffers
// thread: any, under the lock
[[nodiscard]] bool omx_base_ports_populated(const omx_base_sink_PrivateType *sink);
// returns: whether no port has a buffer
// thread: any, under the lock
[[nodiscard]] bool omx_base_ports_empty(const omx_base_sink_PrivateType *sink);

// Clears is_held and calls EmptyBufferDone; every port's pfnReturnBuffer.
OMX_ERRORTYPE omx_base_return_buffer(omx_base_port_PrivateType *port, OMX_BUFFERHEADERTYPE *header);
// Collects the buffers in the queue of a port, oldest first, and empties it; with `all` also the
// held buffers that are in no queue.
// returns: their number
[[nodiscard]] uint32_t
omx_base_collect_held(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port, bool all,
                      std::array<OMX_BUFFERHEADERTYPE *, QUEUE_CAPACITY> *collected);
// Frees every buffer of a port.
void omx_base_free_buffers(omx_base_port_PrivateType *port);

// Entries of the function table.
OMX_ERRORTYPE omx_base_component_SendCommand(OMX_HANDLETYPE handle, OMX_COMMANDTYPE command,
                                             OMX_U32 param, OMX_PTR data);
OMX_ERRORTYPE omx_base_component_UseBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE **header,
                                           OMX_U32 port_index, OMX_PTR app_private,
                                           OMX_U32 size_bytes, OMX_U8 *data);
OMX_ERRORTYPE omx_base_component_AllocateBuffer(OMX_HANDLETYPE handle,
                                                OMX_BUFFERHEADERTYPE **header, OMX_U32 port_index,
                                                OMX_PTR app_private, OMX_U32 size_bytes);
OMX_ERRORTYPE omx_base_component_FreeBuffer(OMX_HANDLETYPE handle, OMX_U32 port_index,
                                            OMX_BUFFERHEADERTYPE *header);
OMX_ERRORTYPE omx_base_component_EmptyThisBuffer(OMX_HANDLETYPE handle,
                                                 OMX_BUFFERHEADERTYPE *header);

// Checks the size and version that every record of the standard begins with.
// returns: OMX_ErrorNone, OMX_ErrorBadParameter, or OMX_ErrorVersionMismatch
[[nodiscard]] inline OMX_ERRORTYPE omx_base_check_head(OMX_U32 size_bytes, OMX_VERSIONTYPE version,
                                                       size_t expected_bytes)
{
    if (size_bytes != expected_bytes) {
        return OMX_ErrorBadParameter;
    }
    const OMX_VERSIONTYPE own = {.nVersion = OMX_VERSION_1_1_2};
    return version.s.nVersionMajor == own.s.nVersionMajor &&
                   version.s.nVersionMinor == own.s.nVersionMinor
               ? OMX_ErrorNone
               : OMX_ErrorVersionMismatch;
}

#endif // PLATFORM_HOST_OMX_BASE_INTERNAL_H

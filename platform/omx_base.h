// The OpenMAX IL base-component framework: the sink base class, the port classes, the standard
// parameter handling and the state machine that a component of the platform builds on.
#ifndef PLATFORM_OMX_BASE_H
#define PLATFORM_OMX_BASE_H

#include "platform/omx_il.h"
#include "platform/semaphore_queue.h"

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// The transition that is pending, in addition to the state.
typedef enum omx_base_transient_t OMX_ENUM_U32 {
    OMX_TransStateNone = 0,
    OMX_TransStateLoadedToIdle = 1,
    OMX_TransStateIdleToLoaded = 2,
    OMX_TransStateMax = 0x7FFFFFFF
} omx_base_transient_t;

typedef struct omx_base_message_t {
    OMX_COMMANDTYPE eCommand;
    OMX_U32 uiParam;
    OMX_PTR pData;
} omx_base_message_t;

typedef struct omx_base_port_PrivateType omx_base_port_PrivateType;
typedef struct omx_base_sink_PrivateType omx_base_sink_PrivateType;

// One port.
struct omx_base_port_PrivateType {
    OMX_COMPONENTTYPE *pComponent;
    OMX_PARAM_PORTDEFINITIONTYPE stPortDefinition;
    queue_t *pBufferQueue;  // buffers from the client, oldest first
    tsem_t *pBufferSem;     // one count for every buffer in the queue
    uint32_t bBeingFlushed; // atomic; changes under the component's lockFlush
    // Returns a buffer to the client through EmptyBufferDone.
    // thread: the buffer thread, or the message thread during a flush; no lock is held
    OMX_ERRORTYPE (*pfnReturnBuffer)(omx_base_port_PrivateType *port, OMX_BUFFERHEADERTYPE *buffer);
    struct omx_base_port_internal_t *pInternal; // the framework's own
};

typedef struct omx_base_video_PortType {
    omx_base_port_PrivateType stBase;
    OMX_VIDEO_PARAM_PORTFORMATTYPE stVideoFormat;
} omx_base_video_PortType;

typedef struct omx_base_audio_PortType {
    omx_base_port_PrivateType stBase;
    OMX_AUDIO_PARAM_PORTFORMATTYPE stAudioFormat;
    OMX_AUDIO_PARAM_PCMMODETYPE stPcmMode;
} omx_base_audio_PortType;

// The sink's private record; a component's own record begins with it.
// owns: the component allocates it, the ports array and the port records with QVR_calloc, and
//       attaches it to the handle before it calls the constructor; the destructor frees them all
struct omx_base_sink_PrivateType {
    OMX_COMPONENTTYPE *pComponent;
    omx_base_port_PrivateType **ppPorts;  // by port index
    OMX_PORT_PARAM_TYPE astPortDomain[4]; // indexed by OMX_PORTDOMAINTYPE
    uint32_t eState;                      // atomic: omx_base_get_state
    uint32_t eTransientState;             // atomic: omx_base_get_transient_state
    const OMX_CALLBACKTYPE *pCallbacks;   // the client's; null until SetCallbacks
    OMX_PTR pCallbackData;
    pthread_mutex_t lockFlush; // guards every port's bBeingFlushed
    tsem_t semFlushAll;        // up by the buffer thread: it holds no buffer of a flushed port
    tsem_t semFlush;           // up by the framework: the flush is over
    tsem_t semBufferThread;    // up when the state, a queue or a flush flag has changed
    OMX_ERRORTYPE (*pfnMessageHandler)(OMX_COMPONENTTYPE *component, omx_base_message_t *message);
    OMX_ERRORTYPE (*pfnDestructor)(OMX_COMPONENTTYPE *component);
    void *(*pfnBufferMgmtFunction)(void *component); // body of the buffer thread
    void (*pfnBufferMgmtCallback)(OMX_COMPONENTTYPE *component, OMX_BUFFERHEADERTYPE *buffer);
    struct omx_base_sink_internal_t *pInternal; // the framework's own
};

// Makes the handle a sink component: fills its function table, starts its message thread and sets
// the state Loaded. After a failure, the table's ComponentDeInit releases the half-built component.
// in: component: its private record is attached and zero-filled
// in: name: copied, at most 127 characters
// returns: OMX_ErrorNone, OMX_ErrorBadParameter when a pointer or the record is missing or the
//          record is already constructed, or OMX_ErrorInsufficientResources
OMX_ERRORTYPE omx_base_sink_Constructor(OMX_COMPONENTTYPE *component, OMX_STRING name);

// Joins the component's threads in any state, releases its buffers, ports and private record, and
// clears the handle's private pointer. Buffers that the component still holds are not returned.
// in: component: its private record may be half-built or missing
// returns: OMX_ErrorNone, or OMX_ErrorBadParameter for a null handle
// thread: none of the component's own, so not from a callback
OMX_ERRORTYPE omx_base_sink_Destructor(OMX_COMPONENTTYPE *component);

// Prepare the record at *port as an enabled port with 4 buffers. The client may change their number
// to 1 to QUEUE_CAPACITY; a buffer shorter than nBufferSize is refused. The component may change
// the definition until its constructor returns.
// in: *port: zero-filled, of the size of its class
// returns: OMX_ErrorNone, OMX_ErrorBadParameter, or OMX_ErrorInsufficientResources
OMX_ERRORTYPE base_video_port_Constructor(OMX_COMPONENTTYPE *component,
                                          omx_base_port_PrivateType **port, OMX_U32 port_index,
                                          OMX_BOOL is_input);
OMX_ERRORTYPE base_audio_port_Constructor(OMX_COMPONENTTYPE *component,
                                          omx_base_port_PrivateType **port, OMX_U32 port_index,
                                          OMX_BOOL is_input);

// The standard parameters: the four domain tables, port definition, port formats, PCM mode.
OMX_ERRORTYPE omx_base_component_GetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                              OMX_PTR parameter);
OMX_ERRORTYPE omx_base_component_SetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                              OMX_PTR parameter);

// Carries out one command. Each command gets one answer, a port command for OMX_ALL one per port:
// CmdComplete, or an error event when it is refused or another command ends it. The error is
// - OMX_ErrorIncorrectStateOperation, with the port, for a port command that the opposite one ends,
// - OMX_ErrorIncorrectStateTransition for a transition to Idle that Loaded ends,
// - OMX_ErrorInvalidState for every command that the Invalid state ends.
// The destructor answers no command.
// returns: OMX_ErrorNone, or the error that the message thread sends as an event
// thread: the message thread
OMX_ERRORTYPE omx_base_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                omx_base_message_t *message);

// thread: any
OMX_STATETYPE omx_base_get_state(const omx_base_sink_PrivateType *sink);
omx_base_transient_t omx_base_get_transient_state(const omx_base_sink_PrivateType *sink);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_OMX_BASE_H

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

// The transition that the component is in, beside its state.
typedef enum omx_base_transient_t : uint32_t {
    OMX_TransStateNone = 0,
    OMX_TransStateLoadedToIdle = 1,
    OMX_TransStateIdleToLoaded = 2
} omx_base_transient_t;

typedef struct omx_base_message_t {
    OMX_COMMANDTYPE eCommand;
    OMX_U32 uiParam;
    OMX_PTR pData;
} omx_base_message_t;

typedef struct omx_base_port_PrivateType omx_base_port_PrivateType;
typedef struct omx_base_sink_PrivateType omx_base_sink_PrivateType;

// One port. The framework's own bookkeeping hangs behind pInternal.
struct omx_base_port_PrivateType {
    OMX_COMPONENTTYPE *pComponent;
    OMX_PARAM_PORTDEFINITIONTYPE stPortDefinition;
    queue_t *pBufferQueue;  // buffers that the client has emptied, oldest first
    tsem_t *pBufferSem;     // one count for every buffer in the queue
    uint32_t bBeingFlushed; // atomic; changes under the component's lockFlush
    // Gives a buffer back to the client through EmptyBufferDone; called by the buffer thread.
    OMX_ERRORTYPE(*pfnReturnBuffer)
    (omx_base_port_PrivateType *port, OMX_BUFFERHEADERTYPE *buffer);
    struct omx_base_port_internal_t *pInternal;
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

// The sink's private record; a component's own record begins with it. The component allocates it
// zero-filled with QVR_calloc and attaches it to the handle before it calls the constructor; the
// ports array and the port records, also from QVR_calloc, are the component's until the destructor
// frees them all.
struct omx_base_sink_PrivateType {
    OMX_COMPONENTTYPE *pComponent;
    omx_base_port_PrivateType **ppPorts;  // one entry a port, by port index
    OMX_PORT_PARAM_TYPE astPortDomain[4]; // indexed by OMX_PORTDOMAINTYPE
    uint32_t eState;                      // OMX_STATETYPE, atomic: read it with omx_base_get_state
    uint32_t eTransientState; // omx_base_transient_t, atomic: omx_base_get_transient_state
    const OMX_CALLBACKTYPE *pCallbacks; // the client's; null until SetCallbacks
    OMX_PTR pCallbackData;
    pthread_mutex_t lockFlush; // guards every port's bBeingFlushed
    tsem_t semFlushAll;        // up by the buffer thread: it holds no buffer of a flushed port
    tsem_t semFlush;           // up by the framework: the flush is over
    tsem_t semBufferThread;    // up for every reason that the buffer thread has to look again
    OMX_ERRORTYPE (*pfnMessageHandler)(OMX_COMPONENTTYPE *component, omx_base_message_t *message);
    OMX_ERRORTYPE (*pfnDestructor)(OMX_COMPONENTTYPE *component);
    void *(*pfnBufferMgmtFunction)(void *component); // body of the buffer thread
    void (*pfnBufferMgmtCallback)(OMX_COMPONENTTYPE *component, OMX_BUFFERHEADERTYPE *buffer);
    struct omx_base_sink_internal_t *pInternal;
};

// Makes the handle a sink component: fills its function table, starts its message thread and puts
// it into Loaded. The private record is attached and zero-filled. When it fails, the table's
// ComponentDeInit releases what there is.
// in: name is copied, at most 127 characters.
// returns OMX_ErrorNone, OMX_ErrorBadParameter when a pointer or the record is missing or is
// constructed already, or OMX_ErrorInsufficientResources.
OMX_ERRORTYPE omx_base_sink_Constructor(OMX_COMPONENTTYPE *component, OMX_STRING name);

// Joins the component's threads in whatever state it is, releases its buffers, ports and the
// private record, and clears the handle's private pointer. Buffers that the component still holds
// are not returned. Accepts a half-built record, and a handle without one.
// returns OMX_ErrorNone, or OMX_ErrorBadParameter for a null handle.
// thread: none of the component's own, so not from a callback.
OMX_ERRORTYPE omx_base_sink_Destructor(OMX_COMPONENTTYPE *component);

// Prepare the port record at *port_out (zero-filled, of the class's size) as an enabled port with
// the given index; is_input nonzero for an input port. It has 4 buffers, which the client may
// change to 1 to QUEUE_CAPACITY; a buffer shorter than nBufferSize is refused. The component may
// change what the port definition says until it is handed out. returns OMX_ErrorNone,
// OMX_ErrorBadParameter, or OMX_ErrorInsufficientResources.
OMX_ERRORTYPE base_video_port_Constructor(OMX_COMPONENTTYPE *component,
                                          omx_base_port_PrivateType **port_out, OMX_U32 port_index,
                                          OMX_BOOL is_input);
OMX_ERRORTYPE base_audio_port_Constructor(OMX_COMPONENTTYPE *component,
                                          omx_base_port_PrivateType **port_out, OMX_U32 port_index,
                                          OMX_BOOL is_input);

// The standard parameters: the four domain tables, port definition, port formats, PCM mode.
OMX_ERRORTYPE omx_base_component_GetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                              OMX_PTR parameter);
OMX_ERRORTYPE omx_base_component_SetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                              OMX_PTR parameter);

// Carries out one command; runs on the message thread, which reports an error that is returned to
// the client as an error event. Each command gets one answer, a port command for OMX_ALL one a
// port: CmdComplete, or an error event when it is refused or another command makes an end of it:
// OMX_ErrorIncorrectStateOperation and the port for a port command that the opposite one overtakes,
// OMX_ErrorIncorrectStateTransition for a way to Idle that is given up, OMX_ErrorInvalidState for
// all that the Invalid state ends. The destructor answers nothing.
OMX_ERRORTYPE omx_base_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                omx_base_message_t *message);

// thread: any.
OMX_STATETYPE omx_base_get_state(const omx_base_sink_PrivateType *sink);
omx_base_transient_t omx_base_get_transient_state(const omx_base_sink_PrivateType *sink);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_OMX_BASE_H

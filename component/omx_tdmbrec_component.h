// The operations of the component that the library exports, besides its entry point
// (component/tdmbrec_interface.h).
#ifndef COMPONENT_OMX_TDMBREC_COMPONENT_H
#define COMPONENT_OMX_TDMBREC_COMPONENT_H

#include "component/tdmbrec_interface.h"
#include "platform/omx_base.h"

extern "C" {

// Builds the component under one of its names "OMX.qvr.tdmb.rec", "OMX.qvr.video_decoder" or
// "OMX.QVR.avcdec"; the last one sets port 0 to AVC. The entry point uses only the first one.
// returns: OMX_ErrorBadParameter for a null pointer, the result of the base constructor,
//          OMX_ErrorInsufficientResources or OMX_ErrorInvalidComponentName; after the last two, the
//          parts that exist stay attached for the destructor
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Constructor(OMX_COMPONENTTYPE *component,
                                                            OMX_STRING name);

// Ends an active recording with reason 7, waits until it is closed and reported, and frees the
// component.
// returns: OMX_ErrorNone
// thread: any but the component's own, so not from its callbacks
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Destructor(OMX_COMPONENTTYPE *component);

// returns: OMX_ErrorBadParameter for a null record, else the base component's result
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_GetParameter(OMX_HANDLETYPE handle,
                                                             OMX_INDEXTYPE index,
                                                             OMX_PTR parameter);

// Takes the vendor parameters and the sampling rate of OMX_IndexParamAudioPcm; all others go to the
// base component.
// returns: OMX_ErrorBadParameter for a null handle or record, OMX_ErrorInvalidComponent for a
//          handle without a component, the result of start_recording
//          (component/recording_begin.h), or the base's result
// thread: the client's; a start or stop may also come from the client's event handler
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_SetParameter(OMX_HANDLETYPE handle,
                                                             OMX_INDEXTYPE index,
                                                             OMX_PTR parameter);

// The component has no configurations, extensions or roles: these do nothing.
// returns: OMX_ErrorNone
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_SetConfig(OMX_HANDLETYPE handle,
                                                          OMX_INDEXTYPE index, OMX_PTR config);
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_GetExtensionIndex(OMX_HANDLETYPE handle,
                                                                  OMX_STRING name,
                                                                  OMX_INDEXTYPE *extension_index);
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_ComponentRoleEnum(OMX_HANDLETYPE handle,
                                                                  OMX_U8 *role, OMX_U32 index);

// Carries out one command as the base component does.
// returns: the base component's result
// thread: the message thread
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                               omx_base_message_t *message);

// Body of the buffer thread: offers the client's buffers to the buffer callback and returns them.
// in: component: the handle
// returns: null
TDMBREC_API void *omx_tdmbrec_component_BufferMgmtFunction(void *component);

// Consumes one buffer of port ucBufferPort and records it while a recording is active.
// out: buffer->nFilledLen: 0 when the buffer is consumed; otherwise it must be offered again
// thread: the buffer thread
TDMBREC_API void omx_tdmbrec_component_BufferMgmtCallback(OMX_COMPONENTTYPE *component,
                                                          OMX_BUFFERHEADERTYPE *buffer);

// Body of the stop thread: waits for the buffer callback, closes encoder and file and notifies the
// client.
// in: component: the handle
TDMBREC_API void *omx_tdmbrec_stop_thread(void *component);

} // extern "C"

#endif // COMPONENT_OMX_TDMBREC_COMPONENT_H

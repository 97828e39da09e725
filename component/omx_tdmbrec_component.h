// The operations of the component that the library exports, beside its entry point
// (component/tdmbrec_interface.h).
#ifndef COMPONENT_OMX_TDMBREC_COMPONENT_H
#define COMPONENT_OMX_TDMBREC_COMPONENT_H

#include "component/tdmbrec_interface.h"
#include "platform/omx_base.h"

extern "C" {

// Builds the component under one of its names "OMX.qvr.tdmb.rec", "OMX.qvr.video_decoder" or
// "OMX.QVR.avcdec"; the last one sets port 0 to AVC.
// returns OMX_ErrorInsufficientResources, OMX_ErrorInvalidComponentName (what was built stays
// attached for the destructor), or the result of the base constructor.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Constructor(OMX_COMPONENTTYPE *component,
                                                            OMX_STRING name);

// Ends an active recording with reason 7, waits until it is closed and reported, and frees the
// component. Not to be called from a callback of the component.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Destructor(OMX_COMPONENTTYPE *component);

// returns OMX_ErrorBadParameter for a null record, else the base component's result.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_GetParameter(OMX_HANDLETYPE handle,
                                                             OMX_INDEXTYPE index,
                                                             OMX_PTR parameter);

// The vendor parameters above and the sampling rate of OMX_IndexParamAudioPcm; everything else
// goes to the base component.
// returns OMX_ErrorBadParameter for a null handle or record, OMX_ErrorInvalidComponent for a handle
// without a component; for a start OMX_ErrorInsufficientResources when another component of the
// process is recording, memory is short, TDMBREC_ENDS ends are not yet reported or the component is
// being destroyed; else 0 or the base's result.
// thread: the client's; a start or stop may also come from the client's event handler.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_SetParameter(OMX_HANDLETYPE handle,
                                                             OMX_INDEXTYPE index,
                                                             OMX_PTR parameter);

// The component has no configurations, extensions or roles: these return 0 and do nothing.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_SetConfig(OMX_HANDLETYPE handle,
                                                          OMX_INDEXTYPE index, OMX_PTR config);
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_GetExtensionIndex(OMX_HANDLETYPE handle,
                                                                  OMX_STRING name,
                                                                  OMX_INDEXTYPE *pe_index);
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_ComponentRoleEnum(OMX_HANDLETYPE handle,
                                                                  OMX_U8 *role, OMX_U32 index);

// Carries out one command as the base component does. thread: the message thread.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                               omx_base_message_t *message);

// Body of the buffer thread: hands the client's buffers to the buffer callback and gives them back.
// Takes the handle, returns null.
TDMBREC_API void *omx_tdmbrec_component_BufferMgmtFunction(void *component);

// Consumes one buffer of port ucBufferPort and records it while a recording is active. Reports by
// the filled length: 0, the buffer is consumed; otherwise it is to be offered again.
// thread: the buffer thread.
TDMBREC_API void omx_tdmbrec_component_BufferMgmtCallback(OMX_COMPONENTTYPE *component,
                                                          OMX_BUFFERHEADERTYPE *buffer);

// Body of the stop thread: waits for the buffer callback, closes encoder and file, tells the
// client. Takes the handle.
TDMBREC_API void *omx_tdmbrec_stop_thread(void *component);

} // extern "C"

#endif // COMPONENT_OMX_TDMBREC_COMPONENT_H

// Events to the client.
#ifndef COMPONENT_CLIENT_EVENTS_H
#define COMPONENT_CLIENT_EVENTS_H

#include "component/omx_tdmbrec_component.h"

// The component's private record.
[[nodiscard]] inline omx_tdmbrec_component_PrivateType *
private_record(OMX_COMPONENTTYPE *pComponent)
{
    return static_cast<omx_tdmbrec_component_PrivateType *>(pComponent->pComponentPrivate);
}

// Calls the client's event handler, if there is one, on this thread.
inline void send_event(OMX_COMPONENTTYPE *pComponent, OMX_EVENTTYPE eEvent, OMX_U32 uiData1,
                       OMX_U32 uiData2, OMX_PTR pEventData)
{
    const omx_base_sink_PrivateType *const pSink = &private_record(pComponent)->stBase;
    if (pSink->pCallbacks != nullptr && pSink->pCallbacks->EventHandler != nullptr) {
        (void)pSink->pCallbacks->EventHandler(pComponent, pSink->pCallbackData, eEvent, uiData1,
                                              uiData2, pEventData);
    }
}

#endif // COMPONENT_CLIENT_EVENTS_H

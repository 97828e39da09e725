// Events to the client.
#ifndef COMPONENT_CLIENT_EVENTS_H
#define COMPONENT_CLIENT_EVENTS_H

#include "component/private_record.h"

// Calls the client's event handler, if any.
// thread: any that holds no lock of the component
inline void send_event(OMX_COMPONENTTYPE *component, OMX_EVENTTYPE event, OMX_U32 data1,
                       OMX_U32 data2, OMX_PTR event_data)
{
    const omx_base_sink_PrivateType *const sink = &private_record(component)->stBase;
    if (sink->pCallbacks != nullptr && sink->pCallbacks->EventHandler != nullptr) {
        (void)sink->pCallbacks->EventHandler(component, sink->pCallbackData, event, data1, data2,
                                             event_data);
    }
}

#endif // COMPONENT_CLIENT_EVENTS_H

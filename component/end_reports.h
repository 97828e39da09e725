// The reports of the ends of recordings. Each recording that is begun owes its client one; they go
// out in the order in which the recordings of the process ended, one at a time.
//
// A stop thread whose turn has not come waits for it. Any other thread hands its report over: it
// may be in the client's event handler, whose return is what the report has to wait for. What was
// handed over is reported by whoever finishes the report before it, so that nothing nests.
// A component that is being destroyed keeps to the order of its own ends alone: the client may
// destroy it from the event of another component.
//
// docs/models/recordings.pml is the model of this order and of the whole life of a recording.
#ifndef COMPONENT_END_REPORTS_H
#define COMPONENT_END_REPORTS_H

#include "platform/omx_il.h"

#include <cstdint>

struct omx_tdmbrec_component_PrivateType;

#define TDMBREC_ENDS 8 // recordings of one component whose ends are not yet reported

enum tdmbrec_end_state_t : uint8_t {
    END_FREE = 0, // of no recording
    END_OWED,     // the recording has not ended, or a thread waits to send the report or sends it
    END_HANDED    // queued; whoever sends the report before it sends it too
};

// The report of a recording's end, from the start of the recording to the return of its event.
struct tdmbrec_end_t {
    tdmbrec_end_t *pNext; // the process's recording that ended after it
    OMX_COMPONENTTYPE *pComponent;
    uint64_t uiCount; // ends in a row that share it
    uint8_t ucReason; // tdmbrec_stop_reason_t
    tdmbrec_end_state_t ucState;
};

// Sets the report of a recording aside. thread: the start, which holds the claim.
// returns false when the component is being destroyed, or TDMBREC_ENDS ends are not yet reported.
[[nodiscard]] bool owe_report(OMX_COMPONENTTYPE *component);

// Takes that back: the recording does not begin.
void cancel_report(omx_tdmbrec_component_PrivateType *self);

// Queues the report of the recording that has been closed, gives up the claim, and sends the event
// as soon as it is its turn. The component may be gone on return.
// in       may_wait: true on the stop thread; otherwise the report may be sent later, by another
//          thread
// thread:  holds no lock
void report_end(OMX_COMPONENTTYPE *component, uint8_t reason, bool may_wait);

// The component begins no recording any more, and its reports wait for no other component's.
// thread: the destructor.
void refuse_recordings(omx_tdmbrec_component_PrivateType *self);

// Sends what the component's threads have handed over. returns true when no report is owed.
// thread: the destructor, after refuse_recordings.
[[nodiscard]] bool is_every_end_reported(OMX_COMPONENTTYPE *component);

// SetCallbacks of the function table. The event handler and its data change together, and never
// between the start of a recording and the return of the event that reports its end.
// returns OMX_ErrorIncorrectStateOperation while a report is owed, OMX_ErrorBadParameter or
// OMX_ErrorInvalidComponent for a handle without a component, else the base's result.
OMX_ERRORTYPE omx_tdmbrec_component_SetCallbacks(OMX_HANDLETYPE handle, OMX_CALLBACKTYPE *callbacks,
                                                 OMX_PTR app_data);

#endif // COMPONENT_END_REPORTS_H

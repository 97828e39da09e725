// The reports of the ends of recordings. Each recording that has begun owes its client one. They
// are sent one at a time, in the order in which the recordings of the process ended.
//
// A stop thread waits for its turn. Any other thread hands its report over: it may be in the
// client's event handler, for whose return the report must wait. A report that was handed over is
// sent by the thread that sends the report before it, so that no event nests in another.
// A component that is being destroyed keeps only the order of its own ends: the client may destroy
// it from the event of another component.
//
// docs/models/recordings.pml is the model of this order and of the whole life of a recording.
#ifndef COMPONENT_END_REPORTS_H
#define COMPONENT_END_REPORTS_H

#include "platform/omx_il.h"

#include <cstdint>

struct omx_tdmbrec_component_PrivateType;

// Recordings of one component whose ends may be unreported; equal ends in a row count as one.
inline constexpr uint32_t kMostUnreportedEnds = 8;

enum tdmbrec_end_state_t : uint8_t {
    kEndFree = 0, // of no recording
    kEndOwed,     // the recording has not ended, or a thread waits to send the report or sends it
    kEndHanded    // queued; the thread that sends the report before it sends it too
};

// The report of a recording's end, from the start of the recording to the return of its event.
struct tdmbrec_end_t {
    tdmbrec_end_t *next; // the recording of the process that ended after this one
    OMX_COMPONENTTYPE *component;
    uint64_t count; // ends in a row that share it
    uint8_t reason; // tdmbrec_stop_reason_t
    tdmbrec_end_state_t state;
};

// Reserves the report of a recording.
// returns: false when the component is being destroyed, or kMostUnreportedEnds ends are unreported
// thread: the start, which holds the claim
[[nodiscard]] bool owe_report(OMX_COMPONENTTYPE *component);

// Undoes owe_report: the recording does not begin.
// thread: the start, which holds the claim
void cancel_report(omx_tdmbrec_component_PrivateType *self);

// Queues the report of the recording that has been closed, releases the claim, and sends the event
// as soon as it is its turn. The component may be gone on return.
// in: may_wait: true on the stop thread; otherwise another thread may send the report later
// thread: any that holds no lock
void report_end(OMX_COMPONENTTYPE *component, uint8_t reason, bool may_wait);

// From now on the component begins no recording, and its reports wait for no other component's.
// thread: the destructor
void refuse_recordings(omx_tdmbrec_component_PrivateType *self);

// Sends the reports that the component's threads have handed over.
// returns: true when no report is owed
// thread: the destructor, after refuse_recordings
[[nodiscard]] bool is_every_end_reported(OMX_COMPONENTTYPE *component);

// SetCallbacks of the function table. The event handler and its data change together, and never
// between the start of a recording and the return of the event that reports its end.
// returns: OMX_ErrorIncorrectStateOperation while a report is owed, OMX_ErrorBadParameter for a
//          null handle, OMX_ErrorInvalidComponent for one without a component, else the base's
//          result
OMX_ERRORTYPE omx_tdmbrec_component_SetCallbacks(OMX_HANDLETYPE handle, OMX_CALLBACKTYPE *callbacks,
                                                 OMX_PTR app_data);

#endif // COMPONENT_END_REPORTS_H

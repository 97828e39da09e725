#include "component/end_reports.h"

#include "component/client_events.h"
#include "component/private_record.h"
#include "component/process_state.h"

#include <algorithm>
#include <cassert>
#include <iterator>

// Guards the queue and the fields of the components that refer to it; not held during an event.
static pthread_mutex_t end_reports_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t end_reports_changed = PTHREAD_COND_INITIALIZER;
static tdmbrec_end_t *first_end; // in the order in which the recordings ended

// Null when no end of the component is queued.
static tdmbrec_end_t *first_end_of(const OMX_COMPONENTTYPE *component)
{
    tdmbrec_end_t *report = first_end;
    while (report != nullptr && report->component != component) {
        report = report->next;
    }
    return report;
}

static bool is_turn_of(const tdmbrec_end_t *report)
{
    return report == first_end || (private_record(report->component)->bIsLeaving != 0 &&
                                   report == first_end_of(report->component));
}

bool owe_report(OMX_COMPONENTTYPE *component)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    pthread_mutex_lock(&end_reports_lock);
    tdmbrec_end_t *const report =
        std::find_if(std::begin(self->astEnd), std::end(self->astEnd),
                     [](const tdmbrec_end_t &end) { return end.state == kEndFree; });
    const bool is_owed = report != std::end(self->astEnd) && self->bIsLeaving == 0;
    if (is_owed) {
        *report = {.component = component, .count = 1, .state = kEndOwed};
        self->pEnd = report;
    }
    pthread_mutex_unlock(&end_reports_lock);
    return is_owed;
}

void cancel_report(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&end_reports_lock);
    *self->pEnd = {};
    self->pEnd = nullptr;
    pthread_mutex_unlock(&end_reports_lock);
}

static void append(tdmbrec_end_t *report)
{
    tdmbrec_end_t **last = &first_end;
    while (*last != nullptr) {
        last = &(*last)->next;
    }
    *last = report;
}

// The component may be gone afterwards: its destructor only waits for its ends to leave the queue.
static void take_out(tdmbrec_end_t *report)
{
    tdmbrec_end_t **link = &first_end;
    while (*link != report) {
        link = &(*link)->next;
    }
    *link = report->next;
    *report = {};
    pthread_cond_broadcast(&end_reports_changed);
}

// The end stays in the queue until its event has returned, so that the next one waits for that.
static void send_report(tdmbrec_end_t *report)
{
    report->state = kEndOwed;
    for (uint64_t i = 0; i < report->count; i++) {
        pthread_mutex_unlock(&end_reports_lock);
        send_event(report->component, TDMBREC_EVENT_END_OF_RECORDING, 0, report->reason, nullptr);
        pthread_mutex_lock(&end_reports_lock);
    }
    take_out(report);
}

// Must follow send_report: the threads that handed these over do not wait for their turn.
static void send_handed_reports(void)
{
    while (first_end != nullptr && first_end->state == kEndHanded) {
        send_report(first_end);
    }
}

// Equal ends in a row share an entry: a client that starts several recordings from every end
// without storage would otherwise need more and more of them.
static void hand_over(tdmbrec_end_t *report)
{
    tdmbrec_end_t *before = first_end;
    while (before->next != report) {
        before = before->next;
    }
    if (before->component == report->component && before->reason == report->reason) {
        before->count++;
        take_out(report);
    } else {
        report->state = kEndHanded;
    }
}

void report_end(OMX_COMPONENTTYPE *component, uint8_t reason, bool may_wait)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    pthread_mutex_lock(&end_reports_lock);
    tdmbrec_end_t *const report = self->pEnd;
    assert(report != nullptr);
    self->pEnd = nullptr;
    report->reason = reason;
    append(report);
    // The next recording cannot end, nor be queued, before this one.
    release_recording(self);
    while (may_wait && !is_turn_of(report)) {
        pthread_cond_wait(&end_reports_changed, &end_reports_lock);
    }
    if (is_turn_of(report)) {
        send_report(report);
        send_handed_reports();
    } else {
        hand_over(report);
    }
    pthread_mutex_unlock(&end_reports_lock);
}

void refuse_recordings(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&end_reports_lock);
    self->bIsLeaving = 1;
    pthread_cond_broadcast(&end_reports_changed);
    pthread_mutex_unlock(&end_reports_lock);
}

static bool owes_report(const omx_tdmbrec_component_PrivateType *self)
{
    return std::any_of(std::begin(self->astEnd), std::end(self->astEnd),
                       [](const tdmbrec_end_t &end) { return end.state != kEndFree; });
}

bool is_every_end_reported(OMX_COMPONENTTYPE *component)
{
    pthread_mutex_lock(&end_reports_lock);
    tdmbrec_end_t *report = first_end_of(component);
    while (report != nullptr && report->state == kEndHanded) {
        send_report(report);
        report = first_end_of(component);
    }
    send_handed_reports();
    const bool is_owed = owes_report(private_record(component));
    pthread_mutex_unlock(&end_reports_lock);
    return !is_owed;
}

OMX_ERRORTYPE omx_tdmbrec_component_SetCallbacks(OMX_HANDLETYPE handle, OMX_CALLBACKTYPE *callbacks,
                                                 OMX_PTR app_data)
{
    if (handle == nullptr) {
        return OMX_ErrorBadParameter;
    }
    const omx_tdmbrec_component_PrivateType *const self =
        private_record(static_cast<OMX_COMPONENTTYPE *>(handle));
    if (self == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    pthread_mutex_lock(&end_reports_lock);
    const OMX_ERRORTYPE result = owes_report(self)
                                     ? OMX_ErrorIncorrectStateOperation
                                     : self->pfnBaseSetCallbacks(handle, callbacks, app_data);
    pthread_mutex_unlock(&end_reports_lock);
    return result;
}

#include "component/end_reports.h"

#include "component/client_events.h"
#include "component/process_state.h"

#include <algorithm>
#include <cassert>
#include <iterator>

// Guards the queue and what the components keep for it; not held while the client is called.
static pthread_mutex_t lockEndReports = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t condEndReports = PTHREAD_COND_INITIALIZER; // the queue has changed
static tdmbrec_end_t *pFirstEnd; // in the order in which the recordings ended

// Null when no end of the component is queued.
static tdmbrec_end_t *first_end_of(const OMX_COMPONENTTYPE *component)
{
    tdmbrec_end_t *report = pFirstEnd;
    while (report != nullptr && report->pComponent != component) {
        report = report->pNext;
    }
    return report;
}

static bool is_turn_of(const tdmbrec_end_t *report)
{
    return report == pFirstEnd || (private_record(report->pComponent)->bIsLeaving != 0 &&
                                   report == first_end_of(report->pComponent));
}

bool owe_report(OMX_COMPONENTTYPE *component)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    pthread_mutex_lock(&lockEndReports);
    tdmbrec_end_t *const report =
        std::find_if(std::begin(self->astEnd), std::end(self->astEnd),
                     [](const tdmbrec_end_t &end) { return end.ucState == END_FREE; });
    const bool is_owed = report != std::end(self->astEnd) && self->bIsLeaving == 0;
    if (is_owed) {
        *report = {.pComponent = component, .uiCount = 1, .ucState = END_OWED};
        self->pEnd = report;
    }
    pthread_mutex_unlock(&lockEndReports);
    return is_owed;
}

void cancel_report(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&lockEndReports);
    *self->pEnd = {};
    self->pEnd = nullptr;
    pthread_mutex_unlock(&lockEndReports);
}

static void append(tdmbrec_end_t *report)
{
    tdmbrec_end_t **last = &pFirstEnd;
    while (*last != nullptr) {
        last = &(*last)->pNext;
    }
    *last = report;
}

// The component may be gone once its last end is out of the queue.
static void take_out(tdmbrec_end_t *report)
{
    tdmbrec_end_t **link = &pFirstEnd;
    while (*link != report) {
        link = &(*link)->pNext;
    }
    *link = report->pNext;
    *report = {};
    pthread_cond_broadcast(&condEndReports);
}

// The end stays in the queue until its event has returned: that is when the next one's turn comes.
static void send_report(tdmbrec_end_t *report)
{
    report->ucState = END_OWED;
    for (uint64_t i = 0; i < report->uiCount; i++) {
        pthread_mutex_unlock(&lockEndReports);
        send_event(report->pComponent, TDMBREC_EVENT_END_OF_RECORDING, 0, report->ucReason,
                   nullptr);
        pthread_mutex_lock(&lockEndReports);
    }
    take_out(report);
}

// Whoever has taken an end out of the queue owes this.
static void send_handed_reports(void)
{
    while (pFirstEnd != nullptr && pFirstEnd->ucState == END_HANDED) {
        send_report(pFirstEnd);
    }
}

// Equal ends in a row share an entry: a client that starts more than one recording from every end
// without storage needs no more of them than one that starts one.
static void hand_over(tdmbrec_end_t *report)
{
    tdmbrec_end_t *before = pFirstEnd;
    while (before->pNext != report) {
        before = before->pNext;
    }
    if (before->pComponent == report->pComponent && before->ucReason == report->ucReason) {
        before->uiCount++;
        take_out(report);
    } else {
        report->ucState = END_HANDED;
    }
}

void report_end(OMX_COMPONENTTYPE *component, uint8_t reason, bool may_wait)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    pthread_mutex_lock(&lockEndReports);
    tdmbrec_end_t *const report = self->pEnd;
    assert(report != nullptr);
    self->pEnd = nullptr;
    report->ucReason = reason;
    append(report);
    // The next recording cannot end, nor be queued, before this one.
    release_recording(self);
    while (may_wait && !is_turn_of(report)) {
        pthread_cond_wait(&condEndReports, &lockEndReports);
    }
    if (is_turn_of(report)) {
        send_report(report);
        send_handed_reports();
    } else {
        hand_over(report);
    }
    pthread_mutex_unlock(&lockEndReports);
}

void refuse_recordings(omx_tdmbrec_component_PrivateType *self)
{
    pthread_mutex_lock(&lockEndReports);
    self->bIsLeaving = 1;
    pthread_cond_broadcast(&condEndReports);
    pthread_mutex_unlock(&lockEndReports);
}

static bool owes_report(const omx_tdmbrec_component_PrivateType *self)
{
    return std::any_of(std::begin(self->astEnd), std::end(self->astEnd),
                       [](const tdmbrec_end_t &end) { return end.ucState != END_FREE; });
}

bool is_every_end_reported(OMX_COMPONENTTYPE *component)
{
    pthread_mutex_lock(&lockEndReports);
    tdmbrec_end_t *report = first_end_of(component);
    while (report != nullptr && report->ucState == END_HANDED) {
        send_report(report);
        report = first_end_of(component);
    }
    send_handed_reports();
    const bool is_owed = owes_report(private_record(component));
    pthread_mutex_unlock(&lockEndReports);
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
    pthread_mutex_lock(&lockEndReports);
    const OMX_ERRORTYPE result = owes_report(self)
                                     ? OMX_ErrorIncorrectStateOperation
                                     : self->pfnBaseSetCallbacks(handle, callbacks, app_data);
    pthread_mutex_unlock(&lockEndReports);
    return result;
}

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
static tdmbrec_end_t *first_end_of(const OMX_COMPONENTTYPE *pComponent)
{
    tdmbrec_end_t *pEnd = pFirstEnd;
    while (pEnd != nullptr && pEnd->pComponent != pComponent) {
        pEnd = pEnd->pNext;
    }
    return pEnd;
}

static bool is_turn_of(const tdmbrec_end_t *pEnd)
{
    return pEnd == pFirstEnd || (private_record(pEnd->pComponent)->bIsLeaving != 0 &&
                                 pEnd == first_end_of(pEnd->pComponent));
}

bool owe_report(OMX_COMPONENTTYPE *pComponent)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    pthread_mutex_lock(&lockEndReports);
    tdmbrec_end_t *const pEnd =
        std::find_if(std::begin(pPrivate->astEnd), std::end(pPrivate->astEnd),
                     [](const tdmbrec_end_t &end) { return end.ucState == END_FREE; });
    const bool is_owed = pEnd != std::end(pPrivate->astEnd) && pPrivate->bIsLeaving == 0;
    if (is_owed) {
        *pEnd = {.pComponent = pComponent, .uiCount = 1, .ucState = END_OWED};
        pPrivate->pEnd = pEnd;
    }
    pthread_mutex_unlock(&lockEndReports);
    return is_owed;
}

void cancel_report(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pthread_mutex_lock(&lockEndReports);
    *pPrivate->pEnd = {};
    pPrivate->pEnd = nullptr;
    pthread_mutex_unlock(&lockEndReports);
}

static void append(tdmbrec_end_t *pEnd)
{
    tdmbrec_end_t **ppLast = &pFirstEnd;
    while (*ppLast != nullptr) {
        ppLast = &(*ppLast)->pNext;
    }
    *ppLast = pEnd;
}

// The component may be gone once its last end is out of the queue.
static void take_out(tdmbrec_end_t *pEnd)
{
    tdmbrec_end_t **ppEnd = &pFirstEnd;
    while (*ppEnd != pEnd) {
        ppEnd = &(*ppEnd)->pNext;
    }
    *ppEnd = pEnd->pNext;
    *pEnd = {};
    pthread_cond_broadcast(&condEndReports);
}

// The end stays in the queue until its event has returned: that is when the next one's turn comes.
static void send_report(tdmbrec_end_t *pEnd)
{
    pEnd->ucState = END_OWED;
    for (uint64_t i = 0; i < pEnd->uiCount; i++) {
        pthread_mutex_unlock(&lockEndReports);
        send_event(pEnd->pComponent, TDMBREC_EVENT_END_OF_RECORDING, 0, pEnd->ucReason, nullptr);
        pthread_mutex_lock(&lockEndReports);
    }
    take_out(pEnd);
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
static void hand_over(tdmbrec_end_t *pEnd)
{
    tdmbrec_end_t *pBefore = pFirstEnd;
    while (pBefore->pNext != pEnd) {
        pBefore = pBefore->pNext;
    }
    if (pBefore->pComponent == pEnd->pComponent && pBefore->ucReason == pEnd->ucReason) {
        pBefore->uiCount++;
        take_out(pEnd);
    } else {
        pEnd->ucState = END_HANDED;
    }
}

void report_end(OMX_COMPONENTTYPE *pComponent, uint8_t reason, bool may_wait)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    pthread_mutex_lock(&lockEndReports);
    tdmbrec_end_t *const pEnd = pPrivate->pEnd;
    assert(pEnd != nullptr);
    pPrivate->pEnd = nullptr;
    pEnd->ucReason = reason;
    append(pEnd);
    // The next recording cannot end, nor be queued, before this one.
    release_recording(pPrivate);
    while (may_wait && !is_turn_of(pEnd)) {
        pthread_cond_wait(&condEndReports, &lockEndReports);
    }
    if (is_turn_of(pEnd)) {
        send_report(pEnd);
        send_handed_reports();
    } else {
        hand_over(pEnd);
    }
    pthread_mutex_unlock(&lockEndReports);
}

void refuse_recordings(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pthread_mutex_lock(&lockEndReports);
    pPrivate->bIsLeaving = 1;
    pthread_cond_broadcast(&condEndReports);
    pthread_mutex_unlock(&lockEndReports);
}

static bool owes_report(const omx_tdmbrec_component_PrivateType *pPrivate)
{
    return std::any_of(std::begin(pPrivate->astEnd), std::end(pPrivate->astEnd),
                       [](const tdmbrec_end_t &end) { return end.ucState != END_FREE; });
}

bool is_every_end_reported(OMX_COMPONENTTYPE *pComponent)
{
    pthread_mutex_lock(&lockEndReports);
    tdmbrec_end_t *pEnd = first_end_of(pComponent);
    while (pEnd != nullptr && pEnd->ucState == END_HANDED) {
        send_report(pEnd);
        pEnd = first_end_of(pComponent);
    }
    send_handed_reports();
    const bool is_owed = owes_report(private_record(pComponent));
    pthread_mutex_unlock(&lockEndReports);
    return !is_owed;
}

OMX_ERRORTYPE omx_tdmbrec_component_SetCallbacks(OMX_HANDLETYPE hComponent,
                                                 OMX_CALLBACKTYPE *pCallbacks, OMX_PTR pAppData)
{
    if (hComponent == nullptr) {
        return OMX_ErrorBadParameter;
    }
    const omx_tdmbrec_component_PrivateType *const pPrivate =
        private_record(static_cast<OMX_COMPONENTTYPE *>(hComponent));
    if (pPrivate == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    pthread_mutex_lock(&lockEndReports);
    const OMX_ERRORTYPE result =
        owes_report(pPrivate) ? OMX_ErrorIncorrectStateOperation
                              : pPrivate->pfnBaseSetCallbacks(hComponent, pCallbacks, pAppData);
    pthread_mutex_unlock(&lockEndReports);
    return result;
}

// The buffer thread: takes the client's buffers from the two ports, hands those with data to the
// buffer callback and gives the consumed ones back.
#include "component/client_events.h"
#include "component/component_log.h"
#include "component/omx_tdmbrec_component.h"
#include "component/shared_fields.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <unistd.h>

// A buffer that the callback keeps while Executing waits for something that nobody signals: the
// loop looks again at this interval.
static constexpr useconds_t kLookUs = 5000;
// It is offered again after a rest that doubles with every refusal: an audio encoder that never
// opens must not fill the log.
static constexpr int64_t kShortestRestUs = 5000;
static constexpr int64_t kLongestRestUs = 1000000;

typedef struct port_hand_t {
    bool needs_buffer;
    bool is_marked; // the mark of the buffer in hand has been reported
    OMX_BUFFERHEADERTYPE *pBuffer;
    int64_t rest_us;  // how long the buffer waits after the last refusal; 0: never refused
    int64_t retry_us; // when it is offered again
} port_hand_t;

typedef std::array<port_hand_t, TDMBREC_PORT_COUNT> port_hands_t;

static bool is_below_idle(const omx_base_sink_PrivateType *pSink)
{
    const OMX_STATETYPE eState = omx_base_get_state(pSink);
    return eState == OMX_StateLoaded || eState == OMX_StateInvalid;
}

static bool may_run(const omx_base_sink_PrivateType *pSink)
{
    const OMX_STATETYPE eState = omx_base_get_state(pSink);
    return eState == OMX_StateIdle || eState == OMX_StateExecuting || eState == OMX_StatePause ||
           omx_base_get_transient_state(pSink) == OMX_TransStateLoadedToIdle;
}

static void give_back(omx_base_port_PrivateType *pPort, port_hand_t *pHand)
{
    OMX_BUFFERHEADERTYPE *const pBuffer = pHand->pBuffer;
    *pHand = {.needs_buffer = true};
    if (pBuffer != nullptr) {
        (void)pPort->pfnReturnBuffer(pPort, pBuffer);
    }
}

// Under the flush mutex.
static bool is_any_port_flushed(const omx_base_sink_PrivateType *pSink)
{
    return pSink->ppPorts[TDMBREC_PORT_VIDEO]->bBeingFlushed != 0 ||
           pSink->ppPorts[TDMBREC_PORT_AUDIO]->bBeingFlushed != 0;
}

// While a port is flushed, the buffers in hand go back and the framework empties the queues.
static void serve_flush(omx_base_sink_PrivateType *pSink, port_hands_t &hands)
{
    pthread_mutex_lock(&pSink->lockFlush);
    while (is_any_port_flushed(pSink)) {
        std::array<bool, TDMBREC_PORT_COUNT> is_flushed;
        for (size_t i = 0; i < hands.size(); i++) {
            is_flushed[i] = pSink->ppPorts[i]->bBeingFlushed != 0;
        }
        pthread_mutex_unlock(&pSink->lockFlush);
        for (size_t i = 0; i < hands.size(); i++) {
            if (is_flushed[i]) {
                give_back(pSink->ppPorts[i], &hands[i]);
            }
        }
        tsem_up(&pSink->semFlushAll);
        tsem_down(&pSink->semFlush);
        pthread_mutex_lock(&pSink->lockFlush);
    }
    pthread_mutex_unlock(&pSink->lockFlush);
}

static bool has_nothing_to_do(omx_base_sink_PrivateType *pSink, const port_hands_t &hands)
{
    for (size_t i = 0; i < hands.size(); i++) {
        if (!hands[i].needs_buffer || tsem_value(pSink->ppPorts[i]->pBufferSem) > 0) {
            return false;
        }
    }
    return true;
}

// Takes the next buffer of a port into hand when it needs one and there is one.
// returns false when the queue handed out a null buffer.
static bool take_buffer(omx_base_port_PrivateType *pPort, port_hand_t *pHand)
{
    if (!pHand->needs_buffer || tsem_value(pPort->pBufferSem) == 0) {
        return true;
    }
    tsem_down(pPort->pBufferSem);
    if (queue_length(pPort->pBufferQueue) == 0) {
        return true;
    }
    OMX_BUFFERHEADERTYPE *const pBuffer =
        static_cast<OMX_BUFFERHEADERTYPE *>(dequeue(pPort->pBufferQueue));
    if (pBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "Had NULL input buffer!!\n");
        return false;
    }
    *pHand = {.pBuffer = pBuffer};
    return true;
}

static void report_flags(OMX_COMPONENTTYPE *pComponent, port_hand_t *pHand)
{
    OMX_BUFFERHEADERTYPE *const pBuffer = pHand->pBuffer;
    if (pBuffer->nFlags == OMX_BUFFERFLAG_EOS) {
        send_event(pComponent, TDMBREC_EVENT_END_OF_STREAM, 0, 1, nullptr);
        pBuffer->nFlags = 0;
    }
    if (pBuffer->hMarkTargetComponent == pComponent && !pHand->is_marked) {
        send_event(pComponent, OMX_EventMark, 1, 0, pBuffer->pMarkData);
        pHand->is_marked = true;
    }
}

static int64_t now_us(void)
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Without a recording every buffer is taken; there is nothing to rest for.
static bool is_resting(omx_tdmbrec_component_PrivateType *pPrivate, const port_hand_t *pHand)
{
    return pHand->rest_us != 0 && load_shared(pPrivate->bRecording) == 1 &&
           now_us() < pHand->retry_us;
}

static void offer_buffer(OMX_COMPONENTTYPE *pComponent, uint8_t port, port_hand_t *pHand)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    pPrivate->ucBufferPort = port;
    pPrivate->stBase.pfnBufferMgmtCallback(pComponent, pHand->pBuffer);
    if (pHand->pBuffer->nFilledLen > 0) {
        pHand->rest_us = std::clamp(2 * pHand->rest_us, kShortestRestUs, kLongestRestUs);
        pHand->retry_us = now_us() + pHand->rest_us;
    }
}

// returns true when the buffer went back to the client.
static bool serve_buffer(OMX_COMPONENTTYPE *pComponent, uint8_t port, port_hand_t *pHand)
{
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    omx_base_sink_PrivateType *const pSink = &pPrivate->stBase;
    report_flags(pComponent, pHand);
    if (pHand->pBuffer->nFilledLen > 0 && pSink->pfnBufferMgmtCallback != nullptr &&
        omx_base_get_state(pSink) == OMX_StateExecuting && !is_resting(pPrivate, pHand)) {
        offer_buffer(pComponent, port, pHand);
    }
    if (pHand->pBuffer->nFilledLen > 0) {
        return false;
    }
    give_back(pSink->ppPorts[port], pHand);
    return true;
}

// Serves the buffers in hand, video first. returns true when one of them went back.
static bool serve_buffers(OMX_COMPONENTTYPE *pComponent, port_hands_t &hands)
{
    bool is_any_returned = false;
    for (uint8_t port = 0; port < TDMBREC_PORT_COUNT; port++) {
        if (hands[port].pBuffer != nullptr && serve_buffer(pComponent, port, &hands[port])) {
            is_any_returned = true;
        }
    }
    return is_any_returned;
}

// After a pass that gave nothing back: sleeps until another one can change something.
static void rest(omx_base_sink_PrivateType *pSink)
{
    if (omx_base_get_state(pSink) == OMX_StateExecuting) {
        usleep(kLookUs);
    } else {
        tsem_down(&pSink->semBufferThread);
    }
}

void *omx_tdmbrec_component_BufferMgmtFunction(void *pHandle)
{
    OMX_COMPONENTTYPE *const pComponent = static_cast<OMX_COMPONENTTYPE *>(pHandle);
    omx_base_sink_PrivateType *const pSink = &private_record(pComponent)->stBase;
    port_hands_t hands = {};
    for (port_hand_t &hand : hands) {
        hand.needs_buffer = true;
    }
    while (may_run(pSink)) {
        serve_flush(pSink, hands);
        if (has_nothing_to_do(pSink, hands)) {
            if (is_below_idle(pSink)) {
                break;
            }
            tsem_down(&pSink->semBufferThread);
        }
        if (is_below_idle(pSink)) {
            break;
        }
        if (!take_buffer(pSink->ppPorts[TDMBREC_PORT_VIDEO], &hands[TDMBREC_PORT_VIDEO]) ||
            !take_buffer(pSink->ppPorts[TDMBREC_PORT_AUDIO], &hands[TDMBREC_PORT_AUDIO])) {
            break;
        }
        const bool holds_buffer = hands[TDMBREC_PORT_VIDEO].pBuffer != nullptr ||
                                  hands[TDMBREC_PORT_AUDIO].pBuffer != nullptr;
        if (holds_buffer && !serve_buffers(pComponent, hands)) {
            rest(pSink);
        }
    }
    return nullptr;
}

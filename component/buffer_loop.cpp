// The buffer thread: takes the client's buffers from the two ports, hands those with data to the
// buffer callback and gives the consumed ones back.
#include "component/client_events.h"
#include "component/component_log.h"
#include "component/omx_tdmbrec_component.h"
#include "component/private_record.h"
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

struct port_hand_t {
    bool needs_buffer;
    bool is_marked; // the mark of the buffer in hand has been reported
    OMX_BUFFERHEADERTYPE *pBuffer;
    int64_t rest_us;  // how long the buffer waits after the last refusal; 0: never refused
    int64_t retry_us; // when it is offered again
};

using port_hands_t = std::array<port_hand_t, TDMBREC_PORT_COUNT>;

static bool is_below_idle(const omx_base_sink_PrivateType *sink)
{
    const OMX_STATETYPE state = omx_base_get_state(sink);
    return state == OMX_StateLoaded || state == OMX_StateInvalid;
}

static bool may_run(const omx_base_sink_PrivateType *sink)
{
    const OMX_STATETYPE state = omx_base_get_state(sink);
    return state == OMX_StateIdle || state == OMX_StateExecuting || state == OMX_StatePause ||
           omx_base_get_transient_state(sink) == OMX_TransStateLoadedToIdle;
}

static void give_back(omx_base_port_PrivateType *port, port_hand_t *hand)
{
    OMX_BUFFERHEADERTYPE *const buffer = hand->pBuffer;
    *hand = {.needs_buffer = true};
    if (buffer != nullptr) {
        (void)port->pfnReturnBuffer(port, buffer);
    }
}

// Under the flush mutex.
static bool is_any_port_flushed(const omx_base_sink_PrivateType *sink)
{
    return sink->ppPorts[TDMBREC_PORT_VIDEO]->bBeingFlushed != 0 ||
           sink->ppPorts[TDMBREC_PORT_AUDIO]->bBeingFlushed != 0;
}

// While a port is flushed, the buffers in hand go back and the framework empties the queues.
static void serve_flush(omx_base_sink_PrivateType *sink, port_hands_t &hands)
{
    pthread_mutex_lock(&sink->lockFlush);
    while (is_any_port_flushed(sink)) {
        std::array<bool, TDMBREC_PORT_COUNT> is_flushed;
        for (size_t i = 0; i < hands.size(); i++) {
            is_flushed[i] = sink->ppPorts[i]->bBeingFlushed != 0;
        }
        pthread_mutex_unlock(&sink->lockFlush);
        for (size_t i = 0; i < hands.size(); i++) {
            if (is_flushed[i]) {
                give_back(sink->ppPorts[i], &hands[i]);
            }
        }
        tsem_up(&sink->semFlushAll);
        tsem_down(&sink->semFlush);
        pthread_mutex_lock(&sink->lockFlush);
    }
    pthread_mutex_unlock(&sink->lockFlush);
}

static bool has_nothing_to_do(omx_base_sink_PrivateType *sink, const port_hands_t &hands)
{
    for (size_t i = 0; i < hands.size(); i++) {
        if (!hands[i].needs_buffer || tsem_value(sink->ppPorts[i]->pBufferSem) > 0) {
            return false;
        }
    }
    return true;
}

// Takes the next buffer of a port into hand when it needs one and there is one.
// returns false when the queue handed out a null buffer.
static bool take_buffer(omx_base_port_PrivateType *port, port_hand_t *hand)
{
    if (!hand->needs_buffer || tsem_value(port->pBufferSem) == 0) {
        return true;
    }
    tsem_down(port->pBufferSem);
    if (queue_length(port->pBufferQueue) == 0) {
        return true;
    }
    OMX_BUFFERHEADERTYPE *const buffer =
        static_cast<OMX_BUFFERHEADERTYPE *>(dequeue(port->pBufferQueue));
    if (buffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "Had NULL input buffer!!\n");
        return false;
    }
    *hand = {.pBuffer = buffer};
    return true;
}

static void report_flags(OMX_COMPONENTTYPE *component, port_hand_t *hand)
{
    OMX_BUFFERHEADERTYPE *const buffer = hand->pBuffer;
    if (buffer->nFlags == OMX_BUFFERFLAG_EOS) {
        send_event(component, TDMBREC_EVENT_END_OF_STREAM, 0, 1, nullptr);
        buffer->nFlags = 0;
    }
    if (buffer->hMarkTargetComponent == component && !hand->is_marked) {
        send_event(component, OMX_EventMark, 1, 0, buffer->pMarkData);
        hand->is_marked = true;
    }
}

static int64_t now_us(void)
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Without a recording every buffer is taken; there is nothing to rest for.
static bool is_resting(omx_tdmbrec_component_PrivateType *self, const port_hand_t *hand)
{
    return hand->rest_us != 0 && load_shared(self->bRecording) == 1 && now_us() < hand->retry_us;
}

static void offer_buffer(OMX_COMPONENTTYPE *component, uint8_t port, port_hand_t *hand)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    self->ucBufferPort = port;
    self->stBase.pfnBufferMgmtCallback(component, hand->pBuffer);
    if (hand->pBuffer->nFilledLen > 0) {
        hand->rest_us = std::clamp(2 * hand->rest_us, kShortestRestUs, kLongestRestUs);
        hand->retry_us = now_us() + hand->rest_us;
    }
}

// returns true when the buffer went back to the client.
static bool serve_buffer(OMX_COMPONENTTYPE *component, uint8_t port, port_hand_t *hand)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    omx_base_sink_PrivateType *const sink = &self->stBase;
    report_flags(component, hand);
    if (hand->pBuffer->nFilledLen > 0 && sink->pfnBufferMgmtCallback != nullptr &&
        omx_base_get_state(sink) == OMX_StateExecuting && !is_resting(self, hand)) {
        offer_buffer(component, port, hand);
    }
    if (hand->pBuffer->nFilledLen > 0) {
        return false;
    }
    give_back(sink->ppPorts[port], hand);
    return true;
}

// Serves the buffers in hand, video first. returns true when one of them went back.
static bool serve_buffers(OMX_COMPONENTTYPE *component, port_hands_t &hands)
{
    bool is_any_returned = false;
    for (uint8_t port = 0; port < TDMBREC_PORT_COUNT; port++) {
        if (hands[port].pBuffer != nullptr && serve_buffer(component, port, &hands[port])) {
            is_any_returned = true;
        }
    }
    return is_any_returned;
}

// After a pass that gave nothing back: sleeps until another one can change something.
static void rest(omx_base_sink_PrivateType *sink)
{
    if (omx_base_get_state(sink) == OMX_StateExecuting) {
        usleep(kLookUs);
    } else {
        tsem_down(&sink->semBufferThread);
    }
}

void *omx_tdmbrec_component_BufferMgmtFunction(void *handle)
{
    OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(handle);
    omx_base_sink_PrivateType *const sink = &private_record(component)->stBase;
    port_hands_t hands = {};
    for (port_hand_t &hand : hands) {
        hand.needs_buffer = true;
    }
    while (may_run(sink)) {
        serve_flush(sink, hands);
        if (has_nothing_to_do(sink, hands)) {
            if (is_below_idle(sink)) {
                break;
            }
            tsem_down(&sink->semBufferThread);
        }
        if (is_below_idle(sink)) {
            break;
        }
        if (!take_buffer(sink->ppPorts[TDMBREC_PORT_VIDEO], &hands[TDMBREC_PORT_VIDEO]) ||
            !take_buffer(sink->ppPorts[TDMBREC_PORT_AUDIO], &hands[TDMBREC_PORT_AUDIO])) {
            break;
        }
        const bool holds_buffer = hands[TDMBREC_PORT_VIDEO].pBuffer != nullptr ||
                                  hands[TDMBREC_PORT_AUDIO].pBuffer != nullptr;
        if (holds_buffer && !serve_buffers(component, hands)) {
            rest(sink);
        }
    }
    return nullptr;
}

// The buffer thread: takes the client's buffers from the two ports, passes those with data to the
// buffer callback and returns the consumed ones.
#include "component/client_events.h"
#include "component/component_log.h"
#include "component/omx_tdmbrec_component.h"
#include "component/private_record.h"
#include "component/shared_fields.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <unistd.h>

// No signal announces when the callback can use a buffer that it has refused: the loop polls.
static constexpr useconds_t kPollUs = 5000;
// The delay before the next offer doubles with every refusal: an audio encoder that never opens
// must not fill the log.
static constexpr int64_t kShortestDelayUs = 5000;
static constexpr int64_t kLongestDelayUs = 1000000;

namespace {

// The buffer of one port that the thread holds.
struct held_buffer_t {
    OMX_BUFFERHEADERTYPE *buffer; // null: none
    bool is_mark_reported;
    int64_t delay_us; // from the last refusal to the next offer; 0: never refused
    int64_t retry_us; // when it is offered again
};

} // namespace

using held_buffers_t = std::array<held_buffer_t, TDMBREC_PORT_COUNT>;

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

static void return_buffer(omx_base_port_PrivateType *port, held_buffer_t *held)
{
    OMX_BUFFERHEADERTYPE *const buffer = held->buffer;
    *held = {};
    if (buffer != nullptr) {
        (void)port->pfnReturnBuffer(port, buffer);
    }
}

// thread: under lockFlush
static bool is_any_port_flushed(const omx_base_sink_PrivateType *sink)
{
    return sink->ppPorts[TDMBREC_PORT_VIDEO]->bBeingFlushed != 0 ||
           sink->ppPorts[TDMBREC_PORT_AUDIO]->bBeingFlushed != 0;
}

// While a port is flushed, its held buffer is returned and the framework empties its queue.
static void serve_flush(omx_base_sink_PrivateType *sink, held_buffers_t &held)
{
    pthread_mutex_lock(&sink->lockFlush);
    while (is_any_port_flushed(sink)) {
        std::array<bool, TDMBREC_PORT_COUNT> is_flushed;
        for (size_t i = 0; i < held.size(); i++) {
            is_flushed[i] = sink->ppPorts[i]->bBeingFlushed != 0;
        }
        pthread_mutex_unlock(&sink->lockFlush);
        for (size_t i = 0; i < held.size(); i++) {
            if (is_flushed[i]) {
                return_buffer(sink->ppPorts[i], &held[i]);
            }
        }
        tsem_up(&sink->semFlushAll);
        tsem_down(&sink->semFlush);
        pthread_mutex_lock(&sink->lockFlush);
    }
    pthread_mutex_unlock(&sink->lockFlush);
}

static bool has_nothing_to_do(omx_base_sink_PrivateType *sink, const held_buffers_t &held)
{
    for (size_t i = 0; i < held.size(); i++) {
        if (held[i].buffer != nullptr || tsem_value(sink->ppPorts[i]->pBufferSem) > 0) {
            return false;
        }
    }
    return true;
}

// Takes the next buffer of a port, if there is one and none is held.
// returns: false when the queue returned a null buffer
static bool take_buffer(omx_base_port_PrivateType *port, held_buffer_t *held)
{
    if (held->buffer != nullptr || tsem_value(port->pBufferSem) == 0) {
        return true;
    }
    tsem_down(port->pBufferSem);
    if (queue_length(port->pBufferQueue) == 0) {
        return true;
    }
    OMX_BUFFERHEADERTYPE *const buffer =
        static_cast<OMX_BUFFERHEADERTYPE *>(dequeue(port->pBufferQueue));
    if (buffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Had NULL input buffer!!\n");
        return false;
    }
    *held = {.buffer = buffer};
    return true;
}

static void report_flags(OMX_COMPONENTTYPE *component, held_buffer_t *held)
{
    OMX_BUFFERHEADERTYPE *const buffer = held->buffer;
    if (buffer->nFlags == OMX_BUFFERFLAG_EOS) {
        send_event(component, TDMBREC_EVENT_END_OF_STREAM, 0, 1, nullptr);
        buffer->nFlags = 0;
    }
    if (buffer->hMarkTargetComponent == component && !held->is_mark_reported) {
        send_event(component, OMX_EventMark, 1, 0, buffer->pMarkData);
        held->is_mark_reported = true;
    }
}

static int64_t now_us(void)
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Without a recording no buffer is refused: none is delayed.
static bool is_delayed(omx_tdmbrec_component_PrivateType *self, const held_buffer_t *held)
{
    return held->delay_us != 0 && load_shared(self->bRecording) == 1 && now_us() < held->retry_us;
}

static void offer_buffer(OMX_COMPONENTTYPE *component, uint8_t port, held_buffer_t *held)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    self->ucBufferPort = port;
    self->stBase.pfnBufferMgmtCallback(component, held->buffer);
    if (held->buffer->nFilledLen > 0) {
        held->delay_us = std::clamp(2 * held->delay_us, kShortestDelayUs, kLongestDelayUs);
        held->retry_us = now_us() + held->delay_us;
    }
}

// returns: true when the buffer was returned to the client
static bool serve_buffer(OMX_COMPONENTTYPE *component, uint8_t port, held_buffer_t *held)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    omx_base_sink_PrivateType *const sink = &self->stBase;
    report_flags(component, held);
    if (held->buffer->nFilledLen > 0 && sink->pfnBufferMgmtCallback != nullptr &&
        omx_base_get_state(sink) == OMX_StateExecuting && !is_delayed(self, held)) {
        offer_buffer(component, port, held);
    }
    if (held->buffer->nFilledLen > 0) {
        return false;
    }
    return_buffer(sink->ppPorts[port], held);
    return true;
}

// Serves the held buffers, video first.
// returns: true when one of them was returned
static bool serve_buffers(OMX_COMPONENTTYPE *component, held_buffers_t &held)
{
    bool is_any_returned = false;
    for (uint8_t port = 0; port < TDMBREC_PORT_COUNT; port++) {
        if (held[port].buffer != nullptr && serve_buffer(component, port, &held[port])) {
            is_any_returned = true;
        }
    }
    return is_any_returned;
}

// Sleeps until another pass can have an effect, after one that returned no buffer.
static void wait_for_change(omx_base_sink_PrivateType *sink)
{
    if (omx_base_get_state(sink) == OMX_StateExecuting) {
        usleep(kPollUs);
    } else {
        tsem_down(&sink->semBufferThread);
    }
}

void *omx_tdmbrec_component_BufferMgmtFunction(void *handle)
{
    OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(handle);
    omx_base_sink_PrivateType *const sink = &private_record(component)->stBase;
    held_buffers_t held = {};
    while (may_run(sink)) {
        serve_flush(sink, held);
        if (has_nothing_to_do(sink, held)) {
            if (is_below_idle(sink)) {
                break;
            }
            tsem_down(&sink->semBufferThread);
        }
        if (is_below_idle(sink)) {
            break;
        }
        if (!take_buffer(sink->ppPorts[TDMBREC_PORT_VIDEO], &held[TDMBREC_PORT_VIDEO]) ||
            !take_buffer(sink->ppPorts[TDMBREC_PORT_AUDIO], &held[TDMBREC_PORT_AUDIO])) {
            break;
        }
        const bool holds_buffer = held[TDMBREC_PORT_VIDEO].buffer != nullptr ||
                                  held[TDMBREC_PORT_AUDIO].buffer != nullptr;
        if (holds_buffer && !serve_buffers(component, held)) {
            wait_for_change(sink);
        }
    }
    return nullptr;
}

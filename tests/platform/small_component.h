// A sink with one video and one audio port that consumes what it is given, and the client that
// drives it: what the tests of the framework have in common.
#ifndef TESTS_PLATFORM_SMALL_COMPONENT_H
#define TESTS_PLATFORM_SMALL_COMPONENT_H

#include "platform/host/host_control.h"
#include "platform/omx_base.h"
#include "platform/qvr_memory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

constexpr OMX_U32 PORT_COUNT = 2;
constexpr OMX_U32 BUFFER_BYTES = 64;
constexpr auto PATIENCE = std::chrono::seconds(20);

struct small_private_t {
    omx_base_sink_PrivateType stBase;
    uint32_t uiPasses;                                 // of the loop, atomic
    void (*pfnConsume)(OMX_BUFFERHEADERTYPE *pBuffer); // null: the data is dropped
};

inline small_private_t *private_of(OMX_COMPONENTTYPE *component)
{
    return static_cast<small_private_t *>(component->pComponentPrivate);
}

inline void consume(OMX_COMPONENTTYPE *component, OMX_BUFFERHEADERTYPE *buffer)
{
    if (private_of(component)->pfnConsume != nullptr)
        private_of(component)->pfnConsume(buffer);
    else
        buffer->nFilledLen = 0;
}

// Takes part in the flush handshake as long as a port is being flushed.
inline void serve_flush(omx_base_sink_PrivateType *sink, OMX_BUFFERHEADERTYPE **in_hand)
{
    pthread_mutex_lock(&sink->lockFlush);
    for (;;) {
        bool flushed[PORT_COUNT];
        for (OMX_U32 index = 0; index < PORT_COUNT; index++)
            flushed[index] = std::atomic_ref(sink->ppPorts[index]->bBeingFlushed).load() != 0;
        if (!flushed[0] && !flushed[1])
            break;
        pthread_mutex_unlock(&sink->lockFlush);
        for (OMX_U32 index = 0; index < PORT_COUNT; index++) {
            if (flushed[index] && in_hand[index] != nullptr) {
                sink->ppPorts[index]->pfnReturnBuffer(sink->ppPorts[index], in_hand[index]);
                in_hand[index] = nullptr;
            }
        }
        tsem_up(&sink->semFlushAll);
        tsem_down(&sink->semFlush);
        pthread_mutex_lock(&sink->lockFlush);
    }
    pthread_mutex_unlock(&sink->lockFlush);
}

inline void serve_buffer(omx_base_sink_PrivateType *sink, omx_base_port_PrivateType *port,
                         OMX_BUFFERHEADERTYPE **in_hand)
{
    OMX_BUFFERHEADERTYPE *buffer = *in_hand;
    if (buffer->hMarkTargetComponent == sink->pComponent) {
        sink->pCallbacks->EventHandler(sink->pComponent, sink->pCallbackData, OMX_EventMark, 1, 0,
                                       buffer->pMarkData);
        buffer->hMarkTargetComponent = nullptr;
    }
    if (buffer->nFilledLen != 0 && omx_base_get_state(sink) == OMX_StateExecuting)
        sink->pfnBufferMgmtCallback(sink->pComponent, buffer);
    if (buffer->nFilledLen == 0) {
        *in_hand = nullptr;
        port->pfnReturnBuffer(port, buffer);
    }
}

inline bool has_work(omx_base_sink_PrivateType *sink, OMX_BUFFERHEADERTYPE *const *in_hand)
{
    for (OMX_U32 index = 0; index < PORT_COUNT; index++) {
        if (in_hand[index] == nullptr ? tsem_value(sink->ppPorts[index]->pBufferSem) != 0
                                      : omx_base_get_state(sink) == OMX_StateExecuting)
            return true;
    }
    return false;
}

inline void *run_loop(void *argument)
{
    OMX_COMPONENTTYPE *component = static_cast<OMX_COMPONENTTYPE *>(argument);
    omx_base_sink_PrivateType *sink = &private_of(component)->stBase;
    OMX_BUFFERHEADERTYPE *in_hand[PORT_COUNT] = {};
    while (omx_base_get_state(sink) >= OMX_StateIdle) {
        std::atomic_ref(private_of(component)->uiPasses)++;
        serve_flush(sink, in_hand);
        if (!has_work(sink, in_hand)) {
            tsem_down(&sink->semBufferThread);
            continue;
        }
        for (OMX_U32 index = 0; index < PORT_COUNT; index++) {
            omx_base_port_PrivateType *port = sink->ppPorts[index];
            if (in_hand[index] == nullptr && tsem_value(port->pBufferSem) != 0) {
                tsem_down(port->pBufferSem);
                in_hand[index] = static_cast<OMX_BUFFERHEADERTYPE *>(dequeue(port->pBufferQueue));
                if (in_hand[index] == nullptr)
                    return nullptr;
            }
            if (in_hand[index] != nullptr)
                serve_buffer(sink, port, &in_hand[index]);
        }
    }
    return nullptr;
}

// Builds the component up to the first failure, as a component of the platform does.
inline OMX_ERRORTYPE construct_small_component(OMX_COMPONENTTYPE *component)
{
    component->pComponentPrivate = QVR_calloc(1, sizeof(small_private_t));
    if (component->pComponentPrivate == nullptr)
        return OMX_ErrorInsufficientResources;
    char name[] = "OMX.test.sink";
    omx_base_sink_PrivateType *sink = &private_of(component)->stBase;
    OMX_ERRORTYPE error = omx_base_sink_Constructor(component, name);
    if (error != OMX_ErrorNone)
        return error;
    sink->astPortDomain[OMX_PortDomainVideo].nPorts = 1;
    sink->astPortDomain[OMX_PortDomainAudio].nPorts = 1;
    sink->astPortDomain[OMX_PortDomainAudio].nStartPortNumber = 1;
    sink->ppPorts = static_cast<omx_base_port_PrivateType **>(
        QVR_calloc(PORT_COUNT, sizeof(omx_base_port_PrivateType *)));
    if (sink->ppPorts == nullptr)
        return OMX_ErrorInsufficientResources;
    sink->ppPorts[0] =
        static_cast<omx_base_port_PrivateType *>(QVR_calloc(1, sizeof(omx_base_video_PortType)));
    sink->ppPorts[1] =
        static_cast<omx_base_port_PrivateType *>(QVR_calloc(1, sizeof(omx_base_audio_PortType)));
    if (sink->ppPorts[0] == nullptr || sink->ppPorts[1] == nullptr)
        return OMX_ErrorInsufficientResources;
    error = base_video_port_Constructor(component, &sink->ppPorts[0], 0, OMX_TRUE);
    if (error == OMX_ErrorNone)
        error = base_audio_port_Constructor(component, &sink->ppPorts[1], 1, OMX_TRUE);
    if (error != OMX_ErrorNone)
        return error;
    for (OMX_U32 index = 0; index < PORT_COUNT; index++)
        sink->ppPorts[index]->stPortDefinition.nBufferSize = BUFFER_BYTES;
    sink->pfnBufferMgmtFunction = run_loop;
    sink->pfnBufferMgmtCallback = consume;
    return OMX_ErrorNone;
}

struct event_t {
    OMX_EVENTTYPE eEvent;
    OMX_U32 uiData1;
    OMX_U32 uiData2;
    bool operator==(const event_t &) const = default;
};

inline void PrintTo(const event_t &event, std::ostream *stream)
{
    *stream << "event " << event.eEvent << " (0x" << std::hex << event.uiData1 << ", "
            << event.uiData2 << std::dec << ")";
}

// The client's side: keeps what the component tells, and lets a test take part in a callback.
struct client_t {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<event_t> events;
    std::deque<OMX_BUFFERHEADERTYPE *> returned;
    std::function<void(const event_t &)> on_event;
    std::function<bool(OMX_BUFFERHEADERTYPE *)> on_return; // true: the buffer is in use again
};

inline OMX_ERRORTYPE handle_event(OMX_HANDLETYPE, OMX_PTR app_data, OMX_EVENTTYPE event,
                                  OMX_U32 data1, OMX_U32 data2, OMX_PTR)
{
    client_t *client = static_cast<client_t *>(app_data);
    const event_t record = {event, data1, data2};
    if (client->on_event)
        client->on_event(record);
    const std::lock_guard guard(client->lock);
    client->events.push_back(record);
    client->changed.notify_all();
    return OMX_ErrorNone;
}

inline OMX_ERRORTYPE empty_buffer_done(OMX_HANDLETYPE, OMX_PTR app_data,
                                       OMX_BUFFERHEADERTYPE *buffer)
{
    client_t *client = static_cast<client_t *>(app_data);
    if (client->on_return && client->on_return(buffer))
        return OMX_ErrorNone;
    const std::lock_guard guard(client->lock);
    client->returned.push_back(buffer);
    client->changed.notify_all();
    return OMX_ErrorNone;
}

class framework_test : public testing::Test {
  protected:
    void SetUp() override
    {
        host_reset();
        live_before = host_live_allocations();
        ASSERT_EQ(construct_small_component(&component), OMX_ErrorNone);
        OMX_CALLBACKTYPE callbacks = {handle_event, empty_buffer_done, nullptr};
        ASSERT_EQ(component.SetCallbacks(&component, &callbacks, &client), OMX_ErrorNone);
    }

    void TearDown() override
    {
        EXPECT_EQ(component.ComponentDeInit(&component), OMX_ErrorNone);
        EXPECT_EQ(host_live_allocations(), live_before);
        EXPECT_TRUE(client.events.empty()) << testing::PrintToString(client.events.front());
    }

    omx_base_sink_PrivateType *sink()
    {
        return &private_of(&component)->stBase;
    }

    OMX_STATETYPE state()
    {
        OMX_STATETYPE state = OMX_StateMax;
        EXPECT_EQ(component.GetState(&component, &state), OMX_ErrorNone);
        return state;
    }

    OMX_ERRORTYPE send(OMX_COMMANDTYPE command, OMX_U32 param, void *data = nullptr)
    {
        return component.SendCommand(&component, command, param, data);
    }

    event_t next_event()
    {
        std::unique_lock guard(client.lock);
        if (!client.changed.wait_for(guard, PATIENCE, [&] { return !client.events.empty(); }))
            return {OMX_EventMax, 0, 0};
        const event_t event = client.events.front();
        client.events.pop_front();
        return event;
    }

    // Waits until the client has this many buffers back, and takes the list.
    std::vector<OMX_BUFFERHEADERTYPE *> wait_returned(size_t count)
    {
        std::unique_lock guard(client.lock);
        EXPECT_TRUE(client.changed.wait_for(guard, PATIENCE,
                                            [&] { return client.returned.size() >= count; }));
        std::vector<OMX_BUFFERHEADERTYPE *> taken(client.returned.begin(), client.returned.end());
        client.returned.clear();
        return taken;
    }

    void expect_complete(OMX_COMMANDTYPE command, OMX_U32 param)
    {
        EXPECT_EQ(next_event(), (event_t{OMX_EventCmdComplete, command, param}));
    }

    void expect_error(OMX_ERRORTYPE error, OMX_U32 data2 = 0)
    {
        EXPECT_EQ(next_event(), (event_t{OMX_EventError, error, data2}));
    }

    void command(OMX_COMMANDTYPE command, OMX_U32 param)
    {
        ASSERT_EQ(send(command, param), OMX_ErrorNone);
        expect_complete(command, param);
    }

    OMX_ERRORTYPE allocate(OMX_U32 port, OMX_U32 bytes = BUFFER_BYTES)
    {
        OMX_BUFFERHEADERTYPE *header = nullptr;
        const OMX_ERRORTYPE error =
            component.AllocateBuffer(&component, &header, port, nullptr, bytes);
        if (error == OMX_ErrorNone)
            buffers[port].push_back(header);
        return error;
    }

    OMX_ERRORTYPE free_buffer(OMX_U32 port)
    {
        OMX_BUFFERHEADERTYPE *header = buffers[port].back();
        buffers[port].pop_back();
        return component.FreeBuffer(&component, port, header);
    }

    void populate(OMX_U32 port)
    {
        while (!sink()->ppPorts[port]->stPortDefinition.bPopulated)
            ASSERT_EQ(allocate(port), OMX_ErrorNone);
    }

    void free_buffers(OMX_U32 port)
    {
        while (!buffers[port].empty())
            ASSERT_EQ(free_buffer(port), OMX_ErrorNone);
    }

    // From Loaded to any state, by the shortest way.
    void bring_to(OMX_STATETYPE target)
    {
        if (target == OMX_StateInvalid) {
            ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
            expect_error(OMX_ErrorInvalidState);
        } else if (target == OMX_StateWaitForResources) {
            command(OMX_CommandStateSet, target);
        } else if (target != OMX_StateLoaded) {
            ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
            populate(0);
            populate(1);
            expect_complete(OMX_CommandStateSet, OMX_StateIdle);
            if (target != OMX_StateIdle)
                command(OMX_CommandStateSet, target);
        }
    }

    OMX_ERRORTYPE empty(OMX_BUFFERHEADERTYPE *header, OMX_U32 bytes = BUFFER_BYTES)
    {
        header->nFilledLen = bytes;
        return component.EmptyThisBuffer(&component, header);
    }

    OMX_COMPONENTTYPE component = {};
    client_t client;
    std::vector<OMX_BUFFERHEADERTYPE *> buffers[PORT_COUNT];
    int64_t live_before = 0;
};

#endif

// A sink with one video and one audio port that consumes what it is given, and the client that
// drives it: what the tests of the framework have in common.
#ifndef TESTS_PLATFORM_SMALL_COMPONENT_H
#define TESTS_PLATFORM_SMALL_COMPONENT_H

#include "platform/host/host_control.h"
#include "platform/omx_base.h"
#include "platform/qvr_memory.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

constexpr OMX_U32 PORT_COUNT = 2;
constexpr OMX_U32 BUFFER_BYTES = 64;
constexpr auto PATIENCE = std::chrono::seconds(20);

inline std::atomic<uint32_t> loop_passes;

inline omx_base_sink_PrivateType *private_of(OMX_COMPONENTTYPE *component)
{
    return static_cast<omx_base_sink_PrivateType *>(component->pComponentPrivate);
}

inline void consume(OMX_COMPONENTTYPE *, OMX_BUFFERHEADERTYPE *buffer)
{
    buffer->nFilledLen = 0;
}

// Takes part in the flush handshake as long as a port is being flushed.
inline void serve_flush(omx_base_sink_PrivateType *sink, OMX_BUFFERHEADERTYPE **in_hand)
{
    for (;;) {
        bool flushed[PORT_COUNT];
        pthread_mutex_lock(&sink->lockFlush);
        for (OMX_U32 index = 0; index < PORT_COUNT; index++)
            flushed[index] = std::atomic_ref(sink->ppPorts[index]->bBeingFlushed).load() != 0;
        pthread_mutex_unlock(&sink->lockFlush);
        if (!flushed[0] && !flushed[1])
            return;
        for (OMX_U32 index = 0; index < PORT_COUNT; index++)
            if (flushed[index] && in_hand[index] != nullptr)
                sink->ppPorts[index]->pfnReturnBuffer(sink->ppPorts[index],
                                                      std::exchange(in_hand[index], nullptr));
        tsem_up(&sink->semFlushAll);
        tsem_down(&sink->semFlush);
    }
}

inline void *run_loop(void *argument)
{
    OMX_COMPONENTTYPE *component = static_cast<OMX_COMPONENTTYPE *>(argument);
    omx_base_sink_PrivateType *sink = private_of(component);
    OMX_BUFFERHEADERTYPE *in_hand[PORT_COUNT] = {};
    while (omx_base_get_state(sink) >= OMX_StateIdle) {
        bool worked = false;
        loop_passes++;
        serve_flush(sink, in_hand);
        for (OMX_U32 index = 0; index < PORT_COUNT; index++) {
            omx_base_port_PrivateType *port = sink->ppPorts[index];
            OMX_BUFFERHEADERTYPE *&buffer = in_hand[index];
            const bool executing = omx_base_get_state(sink) == OMX_StateExecuting;
            if (buffer == nullptr && tsem_value(port->pBufferSem) != 0) {
                tsem_down(port->pBufferSem);
                buffer = static_cast<OMX_BUFFERHEADERTYPE *>(dequeue(port->pBufferQueue));
                if (buffer == nullptr)
                    return nullptr;
                worked = true;
            }
            if (buffer == nullptr || !executing)
                continue;
            sink->pfnBufferMgmtCallback(component, buffer);
            if (buffer->nFilledLen == 0)
                port->pfnReturnBuffer(port, std::exchange(buffer, nullptr));
            worked = true;
        }
        if (!worked)
            tsem_down(&sink->semBufferThread);
    }
    return nullptr;
}

// Builds the component up to the first failure, as a component of the platform does.
inline OMX_ERRORTYPE construct_small_component(OMX_COMPONENTTYPE *component)
{
    constexpr OMX_ERRORTYPE FAILED = OMX_ErrorInsufficientResources;
    char name[] = "OMX.test.sink";
    component->pComponentPrivate = QVR_calloc(1, sizeof(omx_base_sink_PrivateType));
    omx_base_sink_PrivateType *sink = private_of(component);
    if (sink == nullptr || omx_base_sink_Constructor(component, name) != OMX_ErrorNone)
        return FAILED;
    sink->astPortDomain[OMX_PortDomainVideo].nPorts = 1;
    sink->astPortDomain[OMX_PortDomainAudio].nPorts = 1;
    sink->astPortDomain[OMX_PortDomainAudio].nStartPortNumber = 1;
    omx_base_port_PrivateType **ports = static_cast<omx_base_port_PrivateType **>(
        QVR_calloc(PORT_COUNT, sizeof(omx_base_port_PrivateType *)));
    sink->ppPorts = ports;
    if (ports == nullptr)
        return FAILED;
    for (size_t bytes : {sizeof(omx_base_video_PortType), sizeof(omx_base_audio_PortType)}) {
        void *port = QVR_calloc(1, bytes);
        if (port == nullptr)
            return FAILED;
        ports[ports[0] != nullptr] = static_cast<omx_base_port_PrivateType *>(port);
    }
    if (base_video_port_Constructor(component, &ports[0], 0, OMX_TRUE) != OMX_ErrorNone ||
        base_audio_port_Constructor(component, &ports[1], 1, OMX_TRUE) != OMX_ErrorNone)
        return FAILED;
    for (OMX_U32 index = 0; index < PORT_COUNT; index++)
        sink->ppPorts[index]->stPortDefinition.nBufferSize = BUFFER_BYTES;
    sink->pfnBufferMgmtFunction = run_loop;
    sink->pfnBufferMgmtCallback = consume;
    return OMX_ErrorNone;
}

using event_t = std::array<OMX_U32, 3>; // OMX_EVENTTYPE and its two data
using buffer_list_t = std::vector<OMX_BUFFERHEADERTYPE *>;

// The client's side: keeps what the component tells, and lets a test take part in a callback.
struct client_t {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<event_t> events;
    buffer_list_t returned;
    std::function<void(const event_t &)> on_event;
    std::function<bool(OMX_BUFFERHEADERTYPE *)> on_return; // true: the buffer is in use again
};

template <typename List>
void record(client_t *client, List &list, typename List::value_type value)
{
    const std::lock_guard guard(client->lock);
    list.push_back(value);
    client->changed.notify_all();
}

inline OMX_ERRORTYPE handle_event(OMX_HANDLETYPE, OMX_PTR app_data, OMX_EVENTTYPE event,
                                  OMX_U32 data1, OMX_U32 data2, OMX_PTR)
{
    client_t *client = static_cast<client_t *>(app_data);
    if (client->on_event)
        client->on_event({event, data1, data2});
    record(client, client->events, {event, data1, data2});
    return OMX_ErrorNone;
}

inline OMX_ERRORTYPE empty_buffer_done(OMX_HANDLETYPE, OMX_PTR app_data,
                                       OMX_BUFFERHEADERTYPE *buffer)
{
    client_t *client = static_cast<client_t *>(app_data);
    if (!client->on_return || !client->on_return(buffer))
        record(client, client->returned, buffer);
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
        return private_of(&component);
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
    buffer_list_t wait_returned(size_t count)
    {
        std::unique_lock guard(client.lock);
        EXPECT_TRUE(client.changed.wait_for(guard, PATIENCE,
                                            [&] { return client.returned.size() >= count; }));
        return std::exchange(client.returned, {});
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

    void populate(OMX_U32 port)
    {
        while (!sink()->ppPorts[port]->stPortDefinition.bPopulated)
            ASSERT_EQ(allocate(port), OMX_ErrorNone);
    }

    void free_buffers(OMX_U32 port)
    {
        for (OMX_BUFFERHEADERTYPE *header : std::exchange(buffers[port], {}))
            ASSERT_EQ(component.FreeBuffer(&component, port, header), OMX_ErrorNone);
    }

    // A change of state with the buffers that it waits for.
    void change_state(OMX_STATETYPE target)
    {
        ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
        for (OMX_U32 port = 0; port < PORT_COUNT; port++) {
            if (target == OMX_StateIdle)
                populate(port);
            else if (target == OMX_StateLoaded)
                free_buffers(port);
        }
        if (target == OMX_StateInvalid)
            expect_error(OMX_ErrorInvalidState);
        else
            expect_complete(OMX_CommandStateSet, target);
    }

    // From Loaded to any state, by the shortest way.
    void bring_to(OMX_STATETYPE target)
    {
        if (target == OMX_StateExecuting || target == OMX_StatePause)
            change_state(OMX_StateIdle);
        if (target != OMX_StateLoaded)
            change_state(target);
    }

    OMX_ERRORTYPE empty(OMX_BUFFERHEADERTYPE *header, OMX_U32 bytes = BUFFER_BYTES)
    {
        header->nFilledLen = bytes;
        return component.EmptyThisBuffer(&component, header);
    }

    OMX_COMPONENTTYPE component = {};
    client_t client;
    buffer_list_t buffers[PORT_COUNT];
    int64_t live_before = 0;
};

#endif

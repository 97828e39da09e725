#include "tests/platform/small_component.h"

#include <algorithm>
#include <sched.h>
#include <thread>

namespace {

using port_test = framework_test;

// Waits until the buffer thread has taken everything that is queued on a port.
void wait_taken(omx_base_port_PrivateType *port)
{
    while (queue_length(port->pBufferQueue) != 0)
        sched_yield();
}

TEST_F(port_test, buffers_are_checked_when_they_are_made_and_freed)
{
    OMX_BUFFERHEADERTYPE *header = nullptr;
    OMX_U8 memory[BUFFER_BYTES];
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    EXPECT_EQ(allocate(PORT_COUNT - 1, BUFFER_BYTES - 1), OMX_ErrorBadParameter);
    EXPECT_EQ(component.AllocateBuffer(&component, nullptr, 0, nullptr, BUFFER_BYTES),
              OMX_ErrorBadParameter);
    EXPECT_EQ(component.UseBuffer(&component, &header, 0, nullptr, BUFFER_BYTES, nullptr),
              OMX_ErrorBadParameter);
    EXPECT_EQ(component.UseBuffer(&component, &header, PORT_COUNT, nullptr, BUFFER_BYTES, memory),
              OMX_ErrorBadPortIndex);
    host_fail_call(HOST_CALL_CALLOC, 0, 1);
    EXPECT_EQ(allocate(0), OMX_ErrorInsufficientResources);
    host_fail_call(HOST_CALL_MALLOC, 0, 1);
    EXPECT_EQ(allocate(0), OMX_ErrorInsufficientResources);

    ASSERT_EQ(component.UseBuffer(&component, &header, 0, &client, BUFFER_BYTES, memory),
              OMX_ErrorNone);
    EXPECT_EQ(header->pBuffer, memory);
    EXPECT_EQ(header->nAllocLen, BUFFER_BYTES);
    EXPECT_EQ(header->pAppPrivate, &client);
    EXPECT_EQ(header->nInputPortIndex, 0u);
    EXPECT_EQ(component.FreeBuffer(&component, 1, header), OMX_ErrorBadParameter);
    EXPECT_EQ(component.FreeBuffer(&component, PORT_COUNT, header), OMX_ErrorBadPortIndex);
    EXPECT_EQ(component.FreeBuffer(&component, 0, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(component.FreeBuffer(&component, 0, header), OMX_ErrorNone);
    EXPECT_EQ(component.FreeBuffer(&component, 0, header), OMX_ErrorBadParameter);
}

TEST_F(port_test, a_buffer_that_is_freed_under_a_working_port_is_an_error)
{
    bring_to(OMX_StateIdle);
    EXPECT_EQ(free_buffer(1), OMX_ErrorNone);
    expect_error(OMX_ErrorPortUnpopulated, 1);
    EXPECT_EQ(free_buffer(1), OMX_ErrorNone); // told already
    EXPECT_EQ(component.EmptyThisBuffer(&component, buffers[1][0]),
              OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandPortEnable, 1), OMX_ErrorNone);
    populate(1);
    expect_complete(OMX_CommandPortEnable, 1);
}

TEST_F(port_test, empty_this_buffer_checks_the_header)
{
    bring_to(OMX_StatePause);
    OMX_BUFFERHEADERTYPE *header = buffers[0][0];
    const OMX_BUFFERHEADERTYPE good = *header;
    OMX_BUFFERHEADERTYPE stranger = good;
    const auto empty_changed = [&](auto &&change) {
        change(header);
        const OMX_ERRORTYPE error = component.EmptyThisBuffer(&component, header);
        *header = good; // refused, so nobody else looks at it
        return error;
    };
    EXPECT_EQ(component.EmptyThisBuffer(&component, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(component.EmptyThisBuffer(nullptr, header), OMX_ErrorBadParameter);
    EXPECT_EQ(component.EmptyThisBuffer(&component, &stranger), OMX_ErrorBadParameter);
    EXPECT_EQ(empty_changed([](auto *h) { h->nSize--; }), OMX_ErrorBadParameter);
    EXPECT_EQ(empty_changed([](auto *h) { h->nVersion.s.nVersionMinor = 0; }),
              OMX_ErrorVersionMismatch);
    EXPECT_EQ(empty_changed([](auto *h) { h->nInputPortIndex = 1; }), OMX_ErrorBadPortIndex);
    EXPECT_EQ(empty_changed([](auto *h) { h->nOffset = BUFFER_BYTES + 1; }), OMX_ErrorBadParameter);
    EXPECT_EQ(empty_changed([](auto *h) { h->nOffset = 1, h->nFilledLen = BUFFER_BYTES; }),
              OMX_ErrorBadParameter);
    EXPECT_EQ(empty_changed([](auto *h) { h->nOffset = 1, h->nFilledLen = UINT32_MAX; }),
              OMX_ErrorBadParameter);
    EXPECT_EQ(component.FillThisBuffer(&component, header), OMX_ErrorBadPortIndex);
    host_fail_call(HOST_CALL_QUEUE, 0, 1);
    EXPECT_EQ(empty(header), OMX_ErrorInsufficientResources);
    header->nVersion.s.nRevision = 0; // does not matter
    EXPECT_EQ(empty(header), OMX_ErrorNone);
    EXPECT_EQ(component.EmptyThisBuffer(&component, header), OMX_ErrorIncorrectStateOperation);
    EXPECT_EQ(component.FreeBuffer(&component, 0, header), OMX_ErrorIncorrectStateOperation);
}

TEST_F(port_test, buffers_are_only_taken_from_idle_on)
{
    bring_to(OMX_StateIdle);
    EXPECT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    EXPECT_EQ(wait_returned(1).front(), buffers[0][0]); // the way to Loaded gives it back
    EXPECT_EQ(empty(buffers[0][0]), OMX_ErrorIncorrectStateOperation);
}

TEST_F(port_test, the_invalid_state_gives_every_buffer_back_and_lets_it_be_freed)
{
    bring_to(OMX_StatePause);
    for (OMX_BUFFERHEADERTYPE *buffer : buffers[0])
        ASSERT_EQ(empty(buffer), OMX_ErrorNone);
    bring_to(OMX_StateInvalid);
    EXPECT_EQ(wait_returned(4).size(), 4u);
    EXPECT_EQ(empty(buffers[0][0]), OMX_ErrorInvalidState);
    free_buffers(0);
}

TEST_F(port_test, executing_consumes_and_idle_returns_what_is_left)
{
    bring_to(OMX_StatePause);
    for (OMX_BUFFERHEADERTYPE *buffer : buffers[1])
        ASSERT_EQ(empty(buffer), OMX_ErrorNone);
    command(OMX_CommandStateSet, OMX_StateExecuting);
    std::vector<OMX_BUFFERHEADERTYPE *> returned = wait_returned(4);
    EXPECT_EQ(returned, buffers[1]);
    EXPECT_EQ(returned[0]->nFilledLen, 0u);

    command(OMX_CommandStateSet, OMX_StatePause);
    for (OMX_BUFFERHEADERTYPE *buffer : buffers[1])
        ASSERT_EQ(empty(buffer), OMX_ErrorNone);
    command(OMX_CommandStateSet, OMX_StateIdle);
    returned = wait_returned(4);
    EXPECT_EQ(returned, buffers[1]);
    EXPECT_EQ(returned[0]->nFilledLen, BUFFER_BYTES);
}

TEST_F(port_test, a_flush_returns_the_buffer_in_hand_and_the_queued_ones_of_its_port_only)
{
    bring_to(OMX_StatePause);
    for (OMX_U32 port = 0; port < PORT_COUNT; port++)
        for (size_t index = 0; index < 3; index++)
            ASSERT_EQ(empty(buffers[port][index]), OMX_ErrorNone);
    command(OMX_CommandFlush, 0);
    std::vector<OMX_BUFFERHEADERTYPE *> returned = wait_returned(3);
    std::ranges::sort(returned);
    std::vector<OMX_BUFFERHEADERTYPE *> expected(buffers[0].begin(), buffers[0].begin() + 3);
    std::ranges::sort(expected);
    EXPECT_EQ(returned, expected);
    command(OMX_CommandFlush, 0); // nothing there

    ASSERT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    expect_complete(OMX_CommandFlush, 0);
    expect_complete(OMX_CommandFlush, 1);
    EXPECT_EQ(wait_returned(3).size(), 3u);
    command(OMX_CommandStateSet, OMX_StateExecuting);
    ASSERT_EQ(empty(buffers[1][0]), OMX_ErrorNone); // the thread goes on
    EXPECT_EQ(wait_returned(1).size(), 1u);
}

std::mutex consume_gate;
std::atomic<bool> consuming;

void wait_at_gate(OMX_BUFFERHEADERTYPE *)
{
    consuming = true;
    const std::lock_guard guard(consume_gate);
}

TEST_F(port_test, a_flush_waits_for_the_buffer_that_is_being_consumed)
{
    bring_to(OMX_StateExecuting);
    private_of(&component)->pfnConsume = wait_at_gate;
    consuming = false;
    {
        const std::lock_guard guard(consume_gate);
        ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
        while (!consuming)
            sched_yield();
        ASSERT_EQ(send(OMX_CommandFlush, 0), OMX_ErrorNone);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::lock_guard client_guard(client.lock);
        EXPECT_TRUE(client.events.empty());
        EXPECT_TRUE(client.returned.empty());
    }
    expect_complete(OMX_CommandFlush, 0);
    EXPECT_EQ(wait_returned(1).size(), 1u);
}

TEST_F(port_test, a_flush_survives_the_end_of_the_buffer_thread)
{
    bring_to(OMX_StateExecuting);
    private_of(&component)->pfnConsume = wait_at_gate;
    host_fail_call(HOST_CALL_DEQUEUE, 1, 1);
    consuming = false;
    {
        const std::lock_guard guard(consume_gate);
        ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
        while (!consuming)
            sched_yield();
        ASSERT_EQ(empty(buffers[1][0]), OMX_ErrorNone); // ends the thread, port 0's in hand
        ASSERT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
        while (std::atomic_ref(sink()->ppPorts[0]->bBeingFlushed).load() == 0)
            sched_yield();
    }
    expect_complete(OMX_CommandFlush, 0);
    expect_complete(OMX_CommandFlush, 1);
    EXPECT_EQ(wait_returned(2), (std::vector{buffers[0][0], buffers[1][0]}));
}

TEST_F(port_test, disabling_returns_the_buffers_and_ends_when_they_are_freed)
{
    bring_to(OMX_StatePause);
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    wait_taken(sink()->ppPorts[0]);
    ASSERT_EQ(empty(buffers[0][1]), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
    EXPECT_EQ(wait_returned(2).size(), 2u);
    EXPECT_EQ(empty(buffers[0][0]), OMX_ErrorIncorrectStateOperation);
    EXPECT_EQ(allocate(0), OMX_ErrorIncorrectStateOperation);
    free_buffers(0);
    expect_complete(OMX_CommandPortDisable, 0);

    OMX_PARAM_PORTDEFINITIONTYPE definition = sink()->ppPorts[0]->stPortDefinition;
    EXPECT_FALSE(definition.bEnabled);
    definition.nBufferCountActual = 2;
    EXPECT_EQ(component.SetParameter(&component, OMX_IndexParamPortDefinition, &definition),
              OMX_ErrorNone);
    ASSERT_EQ(allocate(0), OMX_ErrorNone); // before or after the command
    ASSERT_EQ(send(OMX_CommandPortEnable, 0), OMX_ErrorNone);
    ASSERT_EQ(allocate(0), OMX_ErrorNone);
    expect_complete(OMX_CommandPortEnable, 0);
    command(OMX_CommandStateSet, OMX_StateExecuting);
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    EXPECT_EQ(wait_returned(1).size(), 1u);
}

TEST_F(port_test, buffers_come_back_after_the_buffer_thread_has_ended)
{
    bring_to(OMX_StatePause);
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    wait_taken(sink()->ppPorts[0]);
    host_fail_call(HOST_CALL_DEQUEUE, 0, 1);
    ASSERT_EQ(empty(buffers[1][0]), OMX_ErrorNone); // the thread ends with the other one in hand
    while (host_call_count(HOST_CALL_DEQUEUE) < 2)
        sched_yield();
    ASSERT_EQ(empty(buffers[1][1]), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    expect_complete(OMX_CommandFlush, 0);
    expect_complete(OMX_CommandFlush, 1);
    EXPECT_EQ(wait_returned(3), (std::vector{buffers[0][0], buffers[1][0], buffers[1][1]}));

    command(OMX_CommandStateSet, OMX_StateIdle);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    free_buffers(0);
    free_buffers(1);
    expect_complete(OMX_CommandStateSet, OMX_StateLoaded);
    bring_to(OMX_StatePause); // a new thread, without counts of the old one
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    wait_taken(sink()->ppPorts[0]);
    command(OMX_CommandFlush, 0);
    EXPECT_EQ(wait_returned(1).size(), 1u);
}

TEST_F(port_test, each_mark_goes_to_the_next_buffer_without_one)
{
    bring_to(OMX_StateExecuting);
    int first = 0;
    int second = 0;
    std::vector<std::pair<OMX_HANDLETYPE, OMX_PTR>> seen;
    client.on_return = [&](OMX_BUFFERHEADERTYPE *buffer) {
        seen.emplace_back(buffer->hMarkTargetComponent, buffer->pMarkData);
        return false;
    };
    for (int *data : {&first, &second}) {
        OMX_MARKTYPE mark = {&first, data};
        ASSERT_EQ(send(OMX_CommandMarkBuffer, 1, &mark), OMX_ErrorNone);
        mark = {}; // the command took a copy
        expect_complete(OMX_CommandMarkBuffer, 1);
    }
    buffers[1][0]->hMarkTargetComponent = &second; // the client's own mark stays
    buffers[1][0]->nFlags = OMX_BUFFERFLAG_EOS;
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    wait_returned(1);
    for (OMX_BUFFERHEADERTYPE *buffer : buffers[1])
        ASSERT_EQ(empty(buffer), OMX_ErrorNone);
    wait_returned(4);
    EXPECT_EQ(seen, (std::vector<std::pair<OMX_HANDLETYPE, OMX_PTR>>{{nullptr, nullptr},
                                                                     {&second, nullptr},
                                                                     {&first, &first},
                                                                     {&first, &second},
                                                                     {nullptr, nullptr}}));
    EXPECT_EQ(buffers[1][0]->nFlags, OMX_BUFFERFLAG_EOS);
}

TEST_F(port_test, the_client_may_empty_and_free_buffers_as_they_come_back)
{
    bring_to(OMX_StateExecuting);
    std::atomic<int> rounds = 0;
    client.on_return = [&](OMX_BUFFERHEADERTYPE *buffer) {
        if (++rounds < 1000)
            return empty(buffer) == OMX_ErrorNone;
        EXPECT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
        return false;
    };
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    wait_returned(1);
    client.on_return = [&](OMX_BUFFERHEADERTYPE *buffer) {
        EXPECT_EQ(component.FreeBuffer(&component, 0, buffer), OMX_ErrorNone);
        return false;
    };
    free_buffers(0);
    expect_complete(OMX_CommandPortDisable, 0);
}

} // namespace

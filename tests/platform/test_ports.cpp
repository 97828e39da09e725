#include "tests/platform/small_component.h"

#include <algorithm>
#include <sched.h>
#include <thread>

namespace {

using port_test = framework_test;

TEST_F(port_test, buffers_are_checked_when_they_are_made_and_freed)
{
    OMX_BUFFERHEADERTYPE *header = nullptr;
    OMX_U8 memory[BUFFER_BYTES];
    const auto use = [&](OMX_BUFFERHEADERTYPE **result, OMX_U32 port, OMX_U8 *bytes) {
        return component.UseBuffer(&component, result, port, &client, BUFFER_BYTES, bytes);
    };
    const auto release = [&](OMX_U32 port, OMX_BUFFERHEADERTYPE *freed) {
        return component.FreeBuffer(&component, port, freed);
    };
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    EXPECT_EQ(allocate(1, BUFFER_BYTES - 1), OMX_ErrorBadParameter);
    EXPECT_EQ(use(nullptr, 0, memory), OMX_ErrorBadParameter);
    EXPECT_EQ(use(&header, 0, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(use(&header, PORT_COUNT, memory), OMX_ErrorBadPortIndex);
    for (host_call_t call : {HOST_CALL_CALLOC, HOST_CALL_MALLOC}) {
        host_fail_call(call, 0, 1);
        EXPECT_EQ(allocate(0), OMX_ErrorInsufficientResources);
    }
    ASSERT_EQ(use(&header, 0, memory), OMX_ErrorNone);
    EXPECT_EQ(header->pBuffer, memory);
    EXPECT_EQ(header->pAppPrivate, &client);
    EXPECT_EQ(release(1, header), OMX_ErrorBadParameter);
    EXPECT_EQ(release(PORT_COUNT, header), OMX_ErrorBadPortIndex);
    EXPECT_EQ(release(0, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(release(0, header), OMX_ErrorNone);
    EXPECT_EQ(release(0, header), OMX_ErrorBadParameter);
}

TEST_F(port_test, a_buffer_that_is_freed_under_a_working_port_is_an_error)
{
    bring_to(OMX_StateIdle);
    OMX_BUFFERHEADERTYPE *const kept = buffers[1].front();
    buffers[1].erase(buffers[1].begin());
    free_buffers(1);
    expect_error(OMX_ErrorPortUnpopulated, 1); // told once
    EXPECT_EQ(empty(kept), OMX_ErrorIncorrectStateOperation);
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
    using header_t = OMX_BUFFERHEADERTYPE;
    const std::pair<void (*)(header_t *), OMX_ERRORTYPE> changes[] = {
        {[](header_t *h) { h->nSize--; }, OMX_ErrorBadParameter},
        {[](header_t *h) { h->nVersion.s.nVersionMinor = 0; }, OMX_ErrorVersionMismatch},
        {[](header_t *h) { h->nInputPortIndex = 1; }, OMX_ErrorBadPortIndex},
        {[](header_t *h) { h->nOffset = BUFFER_BYTES + 1; }, OMX_ErrorBadParameter},
        {[](header_t *h) { h->nOffset = 1, h->nFilledLen = BUFFER_BYTES; }, OMX_ErrorBadParameter},
        {[](header_t *h) { h->nOffset = 1, h->nFilledLen = UINT32_MAX; }, OMX_ErrorBadParameter},
    };
    for (const auto &[change, error] : changes) {
        change(header);
        EXPECT_EQ(component.EmptyThisBuffer(&component, header), error);
        *header = good; // refused, so nobody else looks at it
    }
    EXPECT_EQ(component.EmptyThisBuffer(&component, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(component.EmptyThisBuffer(nullptr, header), OMX_ErrorBadParameter);
    EXPECT_EQ(component.EmptyThisBuffer(&component, &stranger), OMX_ErrorBadParameter);
    EXPECT_EQ(component.FillThisBuffer(&component, header), OMX_ErrorBadPortIndex);
    host_fail_call(HOST_CALL_QUEUE, 0, 1);
    EXPECT_EQ(empty(header), OMX_ErrorInsufficientResources);
    header->nVersion.s.nRevision = 0; // does not matter
    EXPECT_EQ(empty(header), OMX_ErrorNone);
    EXPECT_EQ(component.EmptyThisBuffer(&component, header), OMX_ErrorIncorrectStateOperation);
    EXPECT_EQ(component.FreeBuffer(&component, 0, header), OMX_ErrorIncorrectStateOperation);
}

// A command that gives buffers back, in a state, with the ports it concerns and whether they then
// take buffers.
struct way_back_t {
    OMX_STATETYPE eState;
    OMX_COMMANDTYPE eCommand;
    OMX_U32 uiParam;
    std::vector<OMX_U32> ports;
    OMX_ERRORTYPE eEmpty;
};
const way_back_t ways_back[] = {
    {OMX_StatePause, OMX_CommandFlush, 0, {0}, OMX_ErrorNone},
    {OMX_StateIdle, OMX_CommandFlush, OMX_ALL, {0, 1}, OMX_ErrorNone},
    {OMX_StatePause, OMX_CommandFlush, OMX_ALL, {0, 1}, OMX_ErrorNone},
    {OMX_StatePause, OMX_CommandPortDisable, 1, {1}, OMX_ErrorIncorrectStateOperation},
    {OMX_StateIdle, OMX_CommandStateSet, OMX_StateLoaded, {0, 1}, OMX_ErrorIncorrectStateOperation},
    {OMX_StatePause, OMX_CommandStateSet, OMX_StateIdle, {0, 1}, OMX_ErrorNone},
    {OMX_StatePause, OMX_CommandStateSet, OMX_StateInvalid, {0, 1}, OMX_ErrorInvalidState},
};

class way_back_test : public framework_test,
                      public testing::WithParamInterface<std::tuple<size_t, bool>> {};

// One buffer in hand and two queued on each port, or left so by a buffer thread that has ended.
TEST_P(way_back_test, gives_back_what_the_port_has_unchanged)
{
    const way_back_t &way = ways_back[std::get<0>(GetParam())];
    buffer_list_t expected;
    bring_to(way.eState);
    for (OMX_U32 port = 0; port < PORT_COUNT; port++) {
        host_fail_call(HOST_CALL_DEQUEUE, 0, port == 1 && std::get<1>(GetParam()));
        const uint64_t taken = host_call_count(HOST_CALL_DEQUEUE);
        ASSERT_EQ(empty(buffers[port][0]), OMX_ErrorNone);
        while (host_call_count(HOST_CALL_DEQUEUE) == taken)
            sched_yield();
    }
    for (OMX_U32 port = 0; port < PORT_COUNT; port++)
        for (size_t index : {1u, 2u})
            ASSERT_EQ(empty(buffers[port][index]), OMX_ErrorNone);
    for (OMX_U32 port : way.ports)
        expected.insert(expected.end(), buffers[port].begin(), buffers[port].begin() + 3);
    ASSERT_EQ(send(way.eCommand, way.uiParam), OMX_ErrorNone);
    buffer_list_t returned = wait_returned(expected.size());
    for (OMX_BUFFERHEADERTYPE *buffer : returned)
        EXPECT_EQ(buffer->nFilledLen, BUFFER_BYTES);
    std::ranges::sort(returned);
    std::ranges::sort(expected);
    EXPECT_EQ(returned, expected);
    EXPECT_TRUE(way.eEmpty == OMX_ErrorNone || empty(buffers[1][0]) == way.eEmpty);
    if (way.uiParam == OMX_StateInvalid && way.eCommand == OMX_CommandStateSet) {
        expect_error(OMX_ErrorInvalidState);
        free_buffers(0);
        return;
    }
    for (OMX_U32 port : way.ports) {
        if (way.eCommand != OMX_CommandFlush && way.eEmpty != OMX_ErrorNone)
            free_buffers(port);
        if (way.eCommand != OMX_CommandStateSet)
            expect_complete(way.eCommand, port);
    }
    if (way.eCommand == OMX_CommandStateSet)
        expect_complete(way.eCommand, way.uiParam);

    // The ports work again after a new start, without counts of the old thread.
    if (way.eCommand == OMX_CommandPortDisable) {
        EXPECT_EQ(allocate(1), OMX_ErrorNone); // before or after the command
        ASSERT_EQ(send(OMX_CommandPortEnable, 1), OMX_ErrorNone);
        populate(1);
        expect_complete(OMX_CommandPortEnable, 1);
    }
    if (state() == OMX_StatePause)
        change_state(OMX_StateIdle);
    if (state() == OMX_StateIdle)
        change_state(OMX_StateLoaded);
    wait_returned(0);
    bring_to(OMX_StateExecuting);
    ASSERT_EQ(empty(buffers[1][0]), OMX_ErrorNone);
    EXPECT_EQ(wait_returned(1), buffer_list_t{buffers[1][0]});
}

INSTANTIATE_TEST_SUITE_P(each_way, way_back_test,
                         testing::Combine(testing::Range<size_t>(0, std::size(ways_back)),
                                          testing::Bool()));

std::mutex consume_gate;
std::atomic<bool> consuming;

// The second time the buffer thread ends while the flush waits for it.
TEST_F(port_test, a_flush_waits_for_the_buffer_that_is_being_consumed)
{
    sink()->pfnBufferMgmtCallback = [](OMX_COMPONENTTYPE *, OMX_BUFFERHEADERTYPE *) {
        consuming = true;
        const std::lock_guard guard(consume_gate);
    };
    bring_to(OMX_StateExecuting);
    for (uint32_t ends : {0u, 1u}) {
        host_fail_call(HOST_CALL_DEQUEUE, 1, ends);
        consuming = false;
        {
            const std::lock_guard guard(consume_gate);
            ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
            while (!consuming)
                sched_yield();
            ASSERT_EQ(empty(buffers[1][0]), OMX_ErrorNone);
            ASSERT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const std::lock_guard client_guard(client.lock);
            EXPECT_TRUE(client.events.empty() && client.returned.empty());
        }
        expect_complete(OMX_CommandFlush, 0);
        expect_complete(OMX_CommandFlush, 1);
        EXPECT_EQ(wait_returned(2), (buffer_list_t{buffers[0][0], buffers[1][0]}));
    }
}

TEST_F(port_test, each_mark_goes_to_the_next_buffer_without_one)
{
    bring_to(OMX_StateExecuting);
    int first = 0;
    int second = 0;
    using mark_t = std::pair<OMX_HANDLETYPE, OMX_PTR>;
    std::vector<mark_t> seen;
    for (int *data : {&first, &second}) {
        OMX_MARKTYPE mark = {&first, data};
        ASSERT_EQ(send(OMX_CommandMarkBuffer, 1, &mark), OMX_ErrorNone);
        mark = {}; // the command took a copy
        expect_complete(OMX_CommandMarkBuffer, 1);
    }
    buffers[1][0]->hMarkTargetComponent = &second; // the client's own mark stays
    for (const auto &port_buffers : buffers)
        for (OMX_BUFFERHEADERTYPE *buffer : port_buffers) {
            ASSERT_EQ(empty(buffer), OMX_ErrorNone);
            wait_returned(1);
            seen.emplace_back(buffer->hMarkTargetComponent, buffer->pMarkData);
        }
    EXPECT_EQ(std::vector(seen.begin() + 3, seen.end()), (std::vector<mark_t>{{nullptr, nullptr},
                                                                              {&second, nullptr},
                                                                              {&first, &first},
                                                                              {&first, &second},
                                                                              {nullptr, nullptr}}));
}

} // namespace

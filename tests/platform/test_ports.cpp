#include "tests/platform/framework_test.h"

#include <atomic>
#include <gmock/gmock.h>

namespace {

using Ports = FrameworkTest;

TEST_F(Ports, BuffersAreCheckedWhenTheyAreMadeAndFreed)
{
    OMX_BUFFERHEADERTYPE *header = nullptr;
    OMX_U8 memory[kBufferBytes];
    const auto use = [&](OMX_U32 port, OMX_U32 bytes, OMX_U8 *data) {
        return OMX_UseBuffer(component, &header, port, memory, bytes, data);
    };
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    EXPECT_EQ(use(1, kBufferBytes - 1, memory), OMX_ErrorBadParameter);
    EXPECT_EQ(use(0, kBufferBytes, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(use(kPortCount, kBufferBytes, memory), OMX_ErrorBadPortIndex);
    for (host_call_t call : {kHostCallCalloc, kHostCallMalloc}) {
        host_fail_call(call, 0, 1);
        EXPECT_EQ(allocate(0), OMX_ErrorInsufficientResources);
    }
    ASSERT_EQ(use(0, kBufferBytes, memory), OMX_ErrorNone);
    EXPECT_TRUE(header->pBuffer == memory && header->pAppPrivate == memory);
    EXPECT_EQ(OMX_FreeBuffer(component, 1, header), OMX_ErrorBadParameter);
    EXPECT_EQ(OMX_FreeBuffer(component, 0, header), OMX_ErrorNone);
    EXPECT_EQ(OMX_FreeBuffer(component, 0, header), OMX_ErrorBadParameter);
}

TEST_F(Ports, ABufferThatIsFreedUnderAWorkingPortIsAnError)
{
    bring_to(OMX_StateIdle);
    OMX_BUFFERHEADERTYPE *const kept = buffers[1].front();
    buffers[1].erase(buffers[1].begin());
    free_buffers(1);
    expect_error(OMX_ErrorPortUnpopulated, 1); // reported once
    EXPECT_EQ(empty(kept), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandPortEnable, 1), OMX_ErrorNone);
    populate(1);
    expect_complete(OMX_CommandPortEnable, 1);
}

TEST_F(Ports, EmptyThisBufferChecksTheHeader)
{
    bring_to(OMX_StatePause);
    OMX_BUFFERHEADERTYPE *header = buffers[0][0];
    OMX_BUFFERHEADERTYPE good = *header;
    using Header = OMX_BUFFERHEADERTYPE;
    const std::pair<void (*)(Header *), OMX_ERRORTYPE> changes[] = {
        {[](Header *h) { h->nSize--; }, OMX_ErrorBadParameter},
        {[](Header *h) { h->nVersion.s.nVersionMinor = 0; }, OMX_ErrorVersionMismatch},
        {[](Header *h) { h->nInputPortIndex = 1; }, OMX_ErrorBadPortIndex},
        {[](Header *h) { h->nOffset = kBufferBytes + 1; }, OMX_ErrorBadParameter},
        {[](Header *h) { h->nOffset = 1, h->nFilledLen = UINT32_MAX; }, OMX_ErrorBadParameter},
    };
    for (const auto &[change, error] : changes) {
        change(header);
        EXPECT_EQ(OMX_EmptyThisBuffer(component, header), error);
        *header = good; // refused, so no other thread reads it
    }
    EXPECT_EQ(OMX_EmptyThisBuffer(component, &good), OMX_ErrorBadParameter); // not its buffer
    host_fail_call(kHostCallQueue, 0, 1);
    EXPECT_EQ(empty(header), OMX_ErrorInsufficientResources);
    EXPECT_EQ(empty(header), OMX_ErrorNone);
    EXPECT_EQ(OMX_EmptyThisBuffer(component, header), OMX_ErrorIncorrectStateOperation);
    EXPECT_EQ(OMX_FreeBuffer(component, 0, header), OMX_ErrorIncorrectStateOperation);
}

TEST_F(Ports, NoPortHasATunnel)
{
    OMX_TUNNELSETUPTYPE setup = {};
    const auto request = [&](OMX_U32 port, OMX_HANDLETYPE peer) {
        return component->ComponentTunnelRequest(component, port, peer, 0, &setup);
    };
    EXPECT_EQ(request(1, nullptr), OMX_ErrorNone);
    EXPECT_EQ(request(1, component), OMX_ErrorTunnelingUnsupported);
    EXPECT_EQ(request(kPortCount, nullptr), OMX_ErrorBadPortIndex);
}

// A command that returns buffers, the state before it, its ports, and the later result of
// EmptyThisBuffer.
struct WayBackCase {
    OMX_STATETYPE state;
    OMX_COMMANDTYPE command;
    OMX_U32 param;
    std::vector<OMX_U32> ports;
    OMX_ERRORTYPE empty_result;
};
const WayBackCase ways_back[] = {
    {OMX_StatePause, OMX_CommandFlush, 0, {0}, OMX_ErrorNone},
    {OMX_StateIdle, OMX_CommandFlush, OMX_ALL, {0, 1}, OMX_ErrorNone},
    {OMX_StatePause, OMX_CommandPortDisable, 1, {1}, OMX_ErrorIncorrectStateOperation},
    {OMX_StateIdle, OMX_CommandStateSet, OMX_StateLoaded, {0, 1}, OMX_ErrorIncorrectStateOperation},
    {OMX_StatePause, OMX_CommandStateSet, OMX_StateIdle, {0, 1}, OMX_ErrorNone},
    {OMX_StatePause, OMX_CommandStateSet, OMX_StateInvalid, {0, 1}, OMX_ErrorInvalidState},
};

class WayBack : public FrameworkTest,
                public testing::WithParamInterface<std::tuple<WayBackCase, bool>> {};

// Each port has one buffer in hand and two in the queue; the buffer thread runs or has ended.
TEST_P(WayBack, ReturnsTheBuffersOfThePortUnchanged)
{
    const auto &[way, thread_ends] = GetParam();
    BufferList expected;
    bring_to(way.state);
    for (OMX_U32 port = 0; port < kPortCount; port++) {
        host_fail_call(kHostCallDequeue, 0, port == 1 && thread_ends ? 1 : 0);
        const uint64_t taken = host_call_count(kHostCallDequeue);
        ASSERT_EQ(empty(buffers[port][0]), OMX_ErrorNone);
        wait_until([&] { return host_call_count(kHostCallDequeue) != taken; });
    }
    for (size_t index : {1u, 2u}) {
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            ASSERT_EQ(empty(buffers[port][index]), OMX_ErrorNone);
        }
    }
    for (OMX_U32 port : way.ports) {
        expected.insert(expected.end(), buffers[port].begin(), buffers[port].begin() + 3);
    }
    ASSERT_EQ(send(way.command, way.param), OMX_ErrorNone);
    const BufferList back = wait_returned(expected.size());
    EXPECT_THAT(back, testing::UnorderedElementsAreArray(expected));
    for (const OMX_BUFFERHEADERTYPE *buffer : back) {
        EXPECT_EQ(buffer->nFilledLen, kBufferBytes);
    }
    EXPECT_TRUE(way.empty_result == OMX_ErrorNone || empty(buffers[1][0]) == way.empty_result);
    for (OMX_U32 port : way.ports) {
        EXPECT_EQ(tsem_value(sink->ppPorts[port]->pBufferSem), 0u);
        if (way.empty_result != OMX_ErrorNone) {
            free_buffers(port);
        }
        if (way.command != OMX_CommandStateSet) {
            expect_complete(way.command, port);
        }
    }
    if (way.empty_result == OMX_ErrorInvalidState) {
        return expect_error(OMX_ErrorInvalidState);
    }
    if (way.command == OMX_CommandStateSet) {
        expect_complete(way.command, way.param);
    }
}

INSTANTIATE_TEST_SUITE_P(EachWay, WayBack,
                         testing::Combine(testing::ValuesIn(ways_back), testing::Bool()));

std::mutex gate;
std::atomic<bool> is_inside;

void wait_at_gate()
{
    is_inside = true;
    const std::lock_guard guard(gate);
}

// The flush waits while the buffer thread consumes a buffer, and in the second round while it ends.
TEST_F(Ports, AFlushWaitsForTheBufferThread)
{
    sink->pfnBufferMgmtCallback = [](OMX_COMPONENTTYPE *, OMX_BUFFERHEADERTYPE *) {
        wait_at_gate();
    };
    on_log = [](const LogLine &) { wait_at_gate(); }; // for the null buffer
    for (uint32_t ends : {0u, 1u}) {
        bring_to(OMX_StateExecuting);
        host_fail_call(kHostCallDequeue, 0, ends);
        is_inside = false;
        {
            const std::lock_guard guard(gate);
            ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
            wait_until([] { return is_inside.load(); });
            ASSERT_EQ(empty(buffers[1][0]), OMX_ErrorNone);
            ASSERT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_TRUE(client.events().size() == events_seen && wait_returned(0).empty());
        }
        expect_complete(OMX_CommandFlush, 0);
        expect_complete(OMX_CommandFlush, 1);
        EXPECT_EQ(wait_returned(2), (BufferList{buffers[0][0], buffers[1][0]}));
        change_state(OMX_StateIdle);
        change_state(OMX_StateLoaded); // no count is left for the next round
    }
}

TEST_F(Ports, EachMarkGoesToTheNextBufferWithoutOne)
{
    bring_to(OMX_StatePause);
    int data[3];
    for (size_t index : {1u, 2u}) {
        OMX_MARKTYPE mark = {data, &data[index]};
        ASSERT_EQ(send(OMX_CommandMarkBuffer, 1, &mark), OMX_ErrorNone);
        mark = {}; // the command has a copy
        expect_complete(OMX_CommandMarkBuffer, 1);
    }
    buffers[1][0]->hMarkTargetComponent = buffers[1][0]->pMarkData = &data[0]; // the client's own
    for (size_t index = 0; index < 4; index++) {
        ASSERT_EQ(empty(buffers[1][index]), OMX_ErrorNone);
        EXPECT_EQ(buffers[1][index]->hMarkTargetComponent, index < 3 ? data : nullptr);
        EXPECT_EQ(buffers[1][index]->pMarkData, index < 3 ? &data[index] : nullptr);
    }
}

} // namespace

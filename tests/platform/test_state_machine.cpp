#include "tests/platform/small_component.h"

#include <sched.h>
#include <thread>

namespace {

using state_machine_test = framework_test;

// What a StateSet command gives in each state (rows) for each target (columns), both in the order
// Invalid, Loaded, Idle, Executing, Pause, WaitForResources.
constexpr OMX_ERRORTYPE OK = OMX_ErrorNone;
constexpr OMX_ERRORTYPE INV = OMX_ErrorInvalidState;
constexpr OMX_ERRORTYPE SAME = OMX_ErrorSameState;
constexpr OMX_ERRORTYPE BAD = OMX_ErrorIncorrectStateTransition;
// clang-format off
constexpr OMX_ERRORTYPE transitions[6][6] = {
    {INV, INV,  INV,  INV,  INV,  INV},
    {INV, SAME, OK,   BAD,  BAD,  OK},
    {INV, OK,   SAME, OK,   OK,   BAD},
    {INV, BAD,  OK,   SAME, OK,   BAD},
    {INV, BAD,  OK,   OK,   SAME, BAD},
    {INV, OK,   OK,   BAD,  BAD,  SAME},
};
// clang-format on

class transition_test : public framework_test, public testing::WithParamInterface<int> {};

TEST_P(transition_test, gives_the_standards_result)
{
    const OMX_STATETYPE from = static_cast<OMX_STATETYPE>(GetParam() / 6);
    const OMX_STATETYPE target = static_cast<OMX_STATETYPE>(GetParam() % 6);
    const OMX_ERRORTYPE expected = transitions[from][target];
    bring_to(from);
    if (from == OMX_StateInvalid) {
        EXPECT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorInvalidState);
        EXPECT_EQ(state(), OMX_StateInvalid);
        return;
    }
    ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
    if (expected != OMX_ErrorNone) {
        expect_error(expected);
        EXPECT_EQ(state(), target == OMX_StateInvalid ? OMX_StateInvalid : from);
        return;
    }
    for (OMX_U32 port = 0; port < PORT_COUNT; port++) {
        if (target == OMX_StateIdle)
            populate(port);
        else if (target == OMX_StateLoaded)
            free_buffers(port);
    }
    expect_complete(OMX_CommandStateSet, target);
    EXPECT_EQ(state(), target);
}

INSTANTIATE_TEST_SUITE_P(each_state, transition_test, testing::Range(0, 36));

TEST_F(state_machine_test, idle_waits_for_the_last_buffer_of_each_enabled_port)
{
    command(OMX_CommandPortDisable, 1);
    EXPECT_EQ(allocate(0), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    for (int count = 0; count < 3; count++)
        EXPECT_EQ(allocate(0), OMX_ErrorNone);
    EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateExecuting), OMX_ErrorNone);
    expect_error(OMX_ErrorIncorrectStateTransition);
    EXPECT_EQ(state(), OMX_StateLoaded);
    EXPECT_EQ(allocate(1), OMX_ErrorIncorrectStateOperation);
    EXPECT_EQ(allocate(0), OMX_ErrorNone);
    expect_complete(OMX_CommandStateSet, OMX_StateIdle);
    EXPECT_EQ(allocate(0), OMX_ErrorIncorrectStateOperation);
}

TEST_F(state_machine_test, the_way_to_idle_can_be_given_up)
{
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    populate(0);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    free_buffers(0);
    expect_complete(OMX_CommandStateSet, OMX_StateLoaded);
    bring_to(OMX_StateExecuting);
}

TEST_F(state_machine_test, a_buffer_thread_that_cannot_start_leaves_the_component_loaded)
{
    host_fail_call(HOST_CALL_START_THREAD, 0, 1);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    populate(0);
    populate(1);
    expect_error(OMX_ErrorInsufficientResources);
    EXPECT_EQ(state(), OMX_StateLoaded);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    expect_complete(OMX_CommandStateSet, OMX_StateIdle);
}

TEST_F(state_machine_test, commands_are_checked_before_they_are_queued)
{
    OMX_MARKTYPE mark = {};
    EXPECT_EQ(component.SendCommand(nullptr, OMX_CommandFlush, 0, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(send(OMX_CommandMax, 0), OMX_ErrorBadParameter);
    EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateWaitForResources + 1), OMX_ErrorBadParameter);
    for (OMX_COMMANDTYPE command :
         {OMX_CommandFlush, OMX_CommandPortDisable, OMX_CommandPortEnable, OMX_CommandMarkBuffer})
        EXPECT_EQ(send(command, PORT_COUNT, &mark), OMX_ErrorBadPortIndex);
    EXPECT_EQ(send(OMX_CommandMarkBuffer, OMX_ALL, &mark), OMX_ErrorBadPortIndex);
    EXPECT_EQ(send(OMX_CommandMarkBuffer, 0), OMX_ErrorBadParameter);
    ASSERT_EQ(send(OMX_CommandFlush, 0), OMX_ErrorNone);
    expect_error(OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandMarkBuffer, 0, &mark), OMX_ErrorNone);
    expect_error(OMX_ErrorIncorrectStateOperation);
}

TEST_F(state_machine_test, a_full_command_queue_refuses_the_next_command)
{
    std::mutex gate;
    std::atomic<bool> entered = false;
    client.on_event = [&](const event_t &) {
        entered = true;
        const std::lock_guard guard(gate);
    };
    uint32_t accepted = 0;
    {
        const std::lock_guard guard(gate);
        ASSERT_EQ(send(OMX_CommandPortEnable, 0), OMX_ErrorNone);
        while (!entered)
            sched_yield();
        while (send(OMX_CommandPortEnable, 0) == OMX_ErrorNone)
            accepted++;
    }
    EXPECT_EQ(accepted, 63u);
    for (uint32_t count = 0; count <= accepted; count++)
        expect_complete(OMX_CommandPortEnable, 0);
}

TEST_F(state_machine_test, the_client_may_go_on_from_within_its_event_handler)
{
    client.on_event = [&](const event_t &event) {
        if (event == event_t{OMX_EventCmdComplete, OMX_CommandPortDisable, 1}) {
            EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
            populate(0);
        } else if (event == event_t{OMX_EventCmdComplete, OMX_CommandStateSet, OMX_StateIdle}) {
            EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateExecuting), OMX_ErrorNone);
        }
    };
    command(OMX_CommandPortDisable, 1);
    expect_complete(OMX_CommandStateSet, OMX_StateIdle);
    expect_complete(OMX_CommandStateSet, OMX_StateExecuting);
}

TEST_F(state_machine_test, an_idle_component_does_not_wake_up)
{
    bring_to(OMX_StatePause);
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    const auto passes = [&] { return std::atomic_ref(private_of(&component)->uiPasses).load(); };
    uint32_t before = 0;
    do { // until the buffer is in hand and the thread at rest
        before = passes();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (passes() != before);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(passes(), before);
}

// The client empties buffers as fast as they come back and flushes from a second thread, while the
// component goes up and down: nothing may be lost, returned twice, or hang.
TEST_F(state_machine_test, start_flush_and_stop_do_not_disturb_each_other)
{
    std::atomic<bool> stop = false;
    std::atomic<uint32_t> returns = 0;
    client.on_return = [&](OMX_BUFFERHEADERTYPE *buffer) {
        returns++;
        return empty(buffer) == OMX_ErrorNone;
    };
    std::thread flusher([&] {
        for (OMX_U32 port = 0; !stop; port = port == 0 ? 1 : port == 1 ? OMX_ALL : 0) {
            (void)send(OMX_CommandFlush, port);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    const auto wait_state = [&](OMX_STATETYPE target) {
        const event_t wanted = {OMX_EventCmdComplete, OMX_CommandStateSet, target};
        for (event_t event = next_event(); event != wanted; event = next_event())
            ASSERT_NE(event.eEvent, OMX_EventMax);
    };
    for (int round = 0; round < 60 && !HasFatalFailure(); round++) {
        ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
        populate(0);
        populate(1);
        wait_state(OMX_StateIdle);
        ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateExecuting), OMX_ErrorNone);
        for (const auto &port_buffers : buffers)
            for (OMX_BUFFERHEADERTYPE *buffer : port_buffers)
                ASSERT_EQ(empty(buffer), OMX_ErrorNone);
        wait_state(OMX_StateExecuting);
        const uint32_t before = returns;
        while (returns < before + 50)
            sched_yield();
        ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
        wait_state(OMX_StateIdle);
        ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
        EXPECT_EQ(wait_returned(8).size(), 8u);
        free_buffers(0);
        free_buffers(1);
        wait_state(OMX_StateLoaded);
    }
    stop = true;
    flusher.join();
    const std::lock_guard guard(client.lock);
    client.events.clear();
}

} // namespace

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
    if (expected == OMX_ErrorNone) {
        change_state(target);
    } else if (from == OMX_StateInvalid) {
        EXPECT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorInvalidState);
    } else {
        ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
        expect_error(expected);
    }
    EXPECT_EQ(state(), expected == OMX_ErrorNone || target == OMX_StateInvalid ? target : from);
    for (const auto &port_buffers : buffers) // what the fixture's destruction meets
        for (OMX_BUFFERHEADERTYPE *buffer : port_buffers)
            (void)empty(buffer);
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

TEST_F(state_machine_test, the_way_to_idle_can_be_given_up_or_fail_and_be_gone_again)
{
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    populate(0);
    change_state(OMX_StateLoaded);
    host_fail_call(HOST_CALL_START_THREAD, 0, 1);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    populate(0);
    populate(1);
    expect_error(OMX_ErrorInsufficientResources);
    EXPECT_EQ(state(), OMX_StateLoaded);
    bring_to(OMX_StateExecuting);
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
    for (OMX_COMMANDTYPE command : {OMX_CommandFlush, OMX_CommandMarkBuffer}) {
        ASSERT_EQ(send(command, 0, &mark), OMX_ErrorNone);
        expect_error(OMX_ErrorIncorrectStateOperation);
    }
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

TEST_F(state_machine_test, the_client_may_go_on_from_within_its_callbacks)
{
    client.on_event = [&](const event_t &event) {
        if (event == event_t{OMX_EventCmdComplete, OMX_CommandPortDisable, 1}) {
            EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
            populate(0);
        } else if (event == event_t{OMX_EventCmdComplete, OMX_CommandStateSet, OMX_StateIdle}) {
            for (OMX_BUFFERHEADERTYPE *buffer : std::exchange(buffers[0], {}))
                EXPECT_EQ(empty(buffer), OMX_ErrorNone);
            EXPECT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
        }
    };
    client.on_return = [&](OMX_BUFFERHEADERTYPE *buffer) {
        return component.FreeBuffer(&component, 0, buffer) == OMX_ErrorNone;
    };
    command(OMX_CommandPortDisable, 1);
    expect_complete(OMX_CommandStateSet, OMX_StateIdle);
    expect_complete(OMX_CommandPortDisable, 0);
}

TEST_F(state_machine_test, an_idle_component_does_not_wake_up)
{
    bring_to(OMX_StatePause);
    ASSERT_EQ(empty(buffers[0][0]), OMX_ErrorNone);
    uint32_t before = 0;
    do { // until the buffer is in hand and the thread at rest
        before = loop_passes;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (loop_passes != before);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(loop_passes, before);
}

TEST_F(state_machine_test, a_transition_and_a_port_command_may_be_pending_at_the_end)
{
    bring_to(OMX_StateIdle);
    ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
}

TEST_F(state_machine_test, a_destroyed_component_refuses_everything_but_its_destruction)
{
    OMX_STATETYPE state = OMX_StateMax;
    EXPECT_EQ(component.ComponentDeInit(&component), OMX_ErrorNone);
    EXPECT_EQ(component.ComponentDeInit(nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(component.GetState(&component, &state), OMX_ErrorInvalidComponent);
    EXPECT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorInvalidComponent);
}

// Every call that the construction makes fails in turn, once and from then on.
TEST_F(state_machine_test, a_failure_at_any_call_leaves_nothing_behind)
{
    const int64_t live = host_live_allocations();
    for (host_call_t call :
         {HOST_CALL_CALLOC, HOST_CALL_SINK_CONSTRUCTOR, HOST_CALL_VIDEO_PORT_CONSTRUCTOR,
          HOST_CALL_AUDIO_PORT_CONSTRUCTOR, HOST_CALL_TSEM_INIT, HOST_CALL_START_THREAD}) {
        const uint64_t calls = host_call_count(call);
        ASSERT_GT(calls, 0u) << call;
        for (uint64_t round = 0; round < 2 * calls; round++) {
            OMX_COMPONENTTYPE half_built = {};
            host_reset();
            host_fail_call(call, uint32_t(round / 2), round % 2 != 0 ? UINT32_MAX : 1);
            EXPECT_EQ(construct_small_component(&half_built), OMX_ErrorInsufficientResources)
                << call << " " << round;
            EXPECT_EQ(omx_base_sink_Destructor(&half_built), OMX_ErrorNone);
            EXPECT_EQ(host_live_allocations(), live) << call << " " << round;
        }
        host_reset();
        OMX_COMPONENTTYPE whole = {}; // counts the calls of the next kind
        EXPECT_EQ(construct_small_component(&whole), OMX_ErrorNone);
        EXPECT_EQ(omx_base_sink_Destructor(&whole), OMX_ErrorNone);
    }
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
    const auto go_to = [&](OMX_STATETYPE target, auto &&while_going) {
        const event_t wanted = {OMX_EventCmdComplete, OMX_CommandStateSet, target};
        ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
        for (OMX_U32 port = 0; port < PORT_COUNT; port++)
            while_going(port);
        for (event_t event = next_event(); event != wanted; event = next_event())
            ASSERT_NE(event[0], OMX_U32{OMX_EventMax});
    };
    for (int round = 0; round < 60 && !HasFatalFailure(); round++) {
        go_to(OMX_StateIdle, [&](OMX_U32 port) { populate(port); });
        go_to(OMX_StateExecuting, [&](OMX_U32 port) {
            for (OMX_BUFFERHEADERTYPE *buffer : buffers[port])
                ASSERT_EQ(empty(buffer), OMX_ErrorNone);
        });
        const uint32_t before = returns;
        while (returns < before + 50)
            sched_yield();
        go_to(OMX_StateIdle, [](OMX_U32) {});
        go_to(OMX_StateLoaded, [&](OMX_U32 port) {
            EXPECT_EQ(wait_returned(port == 0 ? 8 : 0).size(), port == 0 ? 8u : 0u);
            free_buffers(port);
        });
    }
    stop = true;
    flusher.join();
    const std::lock_guard guard(client.lock);
    client.events.clear();
}

} // namespace

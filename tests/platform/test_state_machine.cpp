#include "platform/host/omx_base_internal.h"
#include "tests/platform/framework_test.h"

#include <atomic>
#include <string_view>
#include <sys/resource.h>

namespace {

using StateMachine = FrameworkTest;

// By state: the states that may follow it.
constexpr std::string_view kStates = "-LIEPW";
constexpr std::string_view kNextStates[] = {"", "IW", "LEP", "IP", "IE", "LI"};

class Transitions : public FrameworkTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(Transitions, GivesTheStandardsResult)
{
    const OMX_STATETYPE from = static_cast<OMX_STATETYPE>(GetParam() / kStates.size());
    const OMX_STATETYPE target = static_cast<OMX_STATETYPE>(GetParam() % kStates.size());
    const bool is_allowed = kNextStates[from].find(kStates[target]) != std::string_view::npos;
    bring_to(from);
    if (from == OMX_StateInvalid) {
        EXPECT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorInvalidState);
    } else if (is_allowed || target == OMX_StateInvalid) {
        change_state(target);
    } else {
        ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
        expect_error(from == target ? OMX_ErrorSameState : OMX_ErrorIncorrectStateTransition);
    }
    EXPECT_EQ(omx_base_get_state(sink), is_allowed || target == OMX_StateInvalid ? target : from);
    for (const auto &port_buffers : buffers) { // for the fixture's destructor to release
        for (OMX_BUFFERHEADERTYPE *buffer : port_buffers) {
            (void)empty(buffer);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EachState, Transitions, testing::Range(0u, 36u));

TEST_F(StateMachine, TheTransitionToIdleCanWaitBeGivenUpAndFail)
{
    ASSERT_EQ(send(OMX_CommandPortDisable, 1), OMX_ErrorNone);
    expect_complete(OMX_CommandPortDisable, 1);
    EXPECT_EQ(allocate(0), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    for (int count = 0; count < 3; count++) {
        EXPECT_EQ(allocate(0), OMX_ErrorNone);
    }
    EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateExecuting), OMX_ErrorNone);
    expect_error(OMX_ErrorIncorrectStateTransition);
    EXPECT_EQ(allocate(1), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    expect_error(OMX_ErrorIncorrectStateTransition); // of the transition to Idle
    free_buffers(0);
    expect_complete(OMX_CommandStateSet, OMX_StateLoaded);
    host_fail_call(kHostCallStartThread, 0, 1);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    populate(0);
    expect_error(OMX_ErrorInsufficientResources);
    EXPECT_EQ(omx_base_get_state(sink), OMX_StateLoaded);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    expect_complete(OMX_CommandStateSet, OMX_StateIdle);
    EXPECT_EQ(allocate(0), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone); // pending when it is destroyed
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
}

TEST_F(StateMachine, CommandsAreCheckedBeforeTheyAreQueued)
{
    OMX_MARKTYPE mark = {};
    OMX_STATETYPE state = OMX_StateMax;
    EXPECT_EQ(send(OMX_CommandMax, 0), OMX_ErrorBadParameter);
    EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateWaitForResources + 1), OMX_ErrorBadParameter);
    EXPECT_EQ(send(OMX_CommandPortEnable, kPortCount), OMX_ErrorBadPortIndex);
    EXPECT_EQ(send(OMX_CommandMarkBuffer, OMX_ALL, &mark), OMX_ErrorBadPortIndex);
    EXPECT_EQ(send(OMX_CommandMarkBuffer, 0), OMX_ErrorBadParameter);
    for (OMX_COMMANDTYPE command : {OMX_CommandFlush, OMX_CommandMarkBuffer}) {
        ASSERT_EQ(send(command, 0, &mark), OMX_ErrorNone);
        expect_error(OMX_ErrorIncorrectStateOperation);
    }
    EXPECT_EQ(component->ComponentDeInit(component), OMX_ErrorNone); // again in TearDown
    EXPECT_EQ(OMX_GetState(component, &state), OMX_ErrorInvalidComponent);
    EXPECT_EQ(OMX_SetParameter(component, TDMBREC_INDEX_STOP, &state), OMX_ErrorInvalidComponent);
    EXPECT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorInvalidComponent);
}

TEST_F(StateMachine, ACommandThatAnotherOneEndsIsAnswered)
{
    bring_to(OMX_StateIdle);
    ASSERT_EQ(send(OMX_CommandPortDisable, 1), OMX_ErrorNone); // waits for the buffers
    ASSERT_EQ(send(OMX_CommandPortDisable, 1), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandPortEnable, 1), OMX_ErrorNone);
    expect_error(OMX_ErrorIncorrectStateOperation, 1);
    expect_error(OMX_ErrorIncorrectStateOperation, 1);
    expect_complete(OMX_CommandPortEnable, 1);
    ASSERT_EQ(send(OMX_CommandPortDisable, 1), OMX_ErrorNone);
    ASSERT_EQ(OMX_FreeBuffer(component, 1, buffers[1].back()), OMX_ErrorNone);
    client.on_event = [&](const IlEvent &event) { // so that the enable command is queued
        if (event.data1 == OMX_CommandFlush) {
            EXPECT_EQ(send(OMX_CommandPortEnable, 1), OMX_ErrorNone);
            EXPECT_EQ(allocate(1), OMX_ErrorNone);
        }
    };
    ASSERT_EQ(send(OMX_CommandFlush, 0), OMX_ErrorNone);
    expect_complete(OMX_CommandFlush, 0);
    expect_error(OMX_ErrorIncorrectStateOperation, 1);
    expect_complete(OMX_CommandPortEnable, 1);
    ASSERT_EQ(send(OMX_CommandPortDisable, 1), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateInvalid), OMX_ErrorNone);
    for (int command = 0; command < 3; command++) {
        expect_error(OMX_ErrorInvalidState);
    }
}

TEST_F(StateMachine, AFullCommandQueueRefusesTheNextCommand)
{
    uint32_t accepted = 0;
    client.on_event = [&](const IlEvent &) { // while the first command is carried out
        if (accepted == 0) {
            while (send(OMX_CommandPortEnable, 0) == OMX_ErrorNone) {
                accepted++;
            }
        }
    };
    ASSERT_EQ(send(OMX_CommandPortEnable, 0), OMX_ErrorNone);
    for (uint32_t count = 0; count < kMessageCapacity; count++) {
        expect_complete(OMX_CommandPortEnable, 0);
    }
    EXPECT_EQ(accepted, kMessageCapacity - 1);
}

// returns: how often threads of the process have gone to sleep
long count_sleeps()
{
    struct rusage usage = {};
    EXPECT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
    return usage.ru_nvcsw;
}

TEST_F(StateMachine, AComponentAtRestDoesNotWakeUp)
{
    change_state(OMX_StateIdle);
    for (OMX_STATETYPE target : {OMX_StateExecuting, OMX_StatePause}) {
        change_state(target);
        EXPECT_EQ(empty(buffers[0][0]), OMX_ErrorNone); // returned or kept, depending on the state
        long sleeps = 5;
        for (int i = 0; sleeps >= 5 && i < 100; i++) { // until it is at rest
            const long before = count_sleeps();
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            sleeps = count_sleeps() - before;
        }
        EXPECT_LT(sleeps, 5); // of this thread and a sanitizer's
    }
}

// The client empties each returned buffer again and flushes from a second thread, while the state
// goes up and down: no buffer may be lost or returned twice, and nothing may hang.
TEST_F(StateMachine, StartFlushAndStopDoNotDisturbEachOther)
{
    std::atomic<bool> stop = false;
    std::atomic<uint32_t> returns = 0;
    const auto keep = client.on_buffer_back;
    client.on_buffer_back = [&](OMX_BUFFERHEADERTYPE *buffer) {
        returns++;
        if (empty(buffer) != OMX_ErrorNone) {
            keep(buffer);
        }
    };
    std::thread flusher([&] {
        for (OMX_U32 port = 0; !stop; port = port == 0 ? 1 : port == 1 ? OMX_ALL : 0) {
            (void)send(OMX_CommandFlush, port);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const auto go_to = [&](OMX_STATETYPE target, auto while_going) {
        const Event wanted = {OMX_EventCmdComplete, OMX_CommandStateSet, target};
        // The flushes may have filled the command queue.
        wait_until([&] { return send(OMX_CommandStateSet, target) == OMX_ErrorNone; });
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            while_going(port);
        }
        while (next_event() != wanted && !HasFatalFailure()) {
        }
    };
    for (int round = 0; round < 60 && !HasFatalFailure(); round++) {
        go_to(OMX_StateIdle, [&](OMX_U32 port) { populate(port); });
        go_to(OMX_StateExecuting, [&](OMX_U32 port) {
            for (OMX_BUFFERHEADERTYPE *buffer : buffers[port]) {
                ASSERT_EQ(empty(buffer), OMX_ErrorNone);
            }
        });
        wait_until([&, before = returns.load()] { return returns >= before + 50; });
        go_to(OMX_StateIdle, [](OMX_U32) {});
        go_to(OMX_StateLoaded, [&](OMX_U32 port) {
            EXPECT_EQ(wait_returned(port == 0 ? 8 : 0).size(), port == 0 ? 8u : 0u);
            free_buffers(port);
        });
    }
    stop = true;
    flusher.join();
    client.destroy();
    events_seen = client.events().size();
}

} // namespace

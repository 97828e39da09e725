// The state machine and the commands.
#include "platform/host/omx_base_internal.h"
#include "tests/platform/il_statement.h"

#include <string_view>

namespace {

// By state: the states that may follow it.
constexpr std::string_view kStates = "-LIEPW";
constexpr std::string_view kNextStates[] = {"", "IW", "LEP", "IP", "IE", "LI"};

void expect_transition(OMX_STATETYPE from, OMX_STATETYPE target)
{
    Il il;
    const bool is_allowed = target == OMX_StateInvalid ||
                            kNextStates[from].find(kStates[target]) != std::string_view::npos;
    il.bring_to(from);
    if (from == OMX_StateInvalid) {
        EXPECT_EQ(il.send(OMX_CommandStateSet, target), OMX_ErrorInvalidState);
    } else if (is_allowed) {
        il.change_state(target);
    } else {
        il.command(OMX_CommandStateSet, target);
        il.expect_error(from == target ? OMX_ErrorSameState : OMX_ErrorIncorrectStateTransition);
    }
    EXPECT_EQ(omx_base_get_state(il.sink), is_allowed ? target : from) << from;
    il.finish();
}

const IlRow kRows[] = {
    {"TransitionsAreTheStandards",
     [](Il &) {
         for (OMX_U32 pair = 0; pair < kStates.size() * kStates.size(); pair++) {
             expect_transition(static_cast<OMX_STATETYPE>(pair / kStates.size()),
                               static_cast<OMX_STATETYPE>(pair % kStates.size()));
         }
     }},
    {"AStateIsReportedWhenItIsReached",
     [](Il &il) {
         OMX_STATETYPE seen = OMX_StateMax;
         il.client.on_event = [&](const IlEvent &) {
             EXPECT_EQ(OMX_GetState(il.component, &seen), OMX_ErrorNone);
         };
         for (OMX_STATETYPE target : {OMX_StateIdle, OMX_StateExecuting, OMX_StatePause,
                                      OMX_StateExecuting, OMX_StateIdle, OMX_StateLoaded}) {
             il.change_state(target);
             EXPECT_EQ(seen, target);
         }
         EXPECT_EQ(OMX_GetState(il.component, nullptr), OMX_ErrorBadParameter);
     }},
    {"MissingResourcesKeepTheState",
     [](Il &il) {
         host_fail_call(kHostCallStartThread, 0, 1);
         il.command(OMX_CommandStateSet, OMX_StateIdle);
         il.populate(0);
         il.populate(1);
         il.expect_error(OMX_ErrorInsufficientResources);
         EXPECT_EQ(omx_base_get_state(il.sink), OMX_StateLoaded);
         il.change_state(OMX_StateIdle); // with the same buffers
     }},
    {"TheWayToIdleCanBeGivenUp",
     [](Il &il) {
         for (OMX_STATETYPE from : {OMX_StateLoaded, OMX_StateWaitForResources}) {
             il.bring_to(from);
             il.command(OMX_CommandStateSet, OMX_StateIdle);
             EXPECT_EQ(il.allocate(0), OMX_ErrorNone);
             il.command(OMX_CommandStateSet, OMX_StateExecuting);
             il.expect_error(OMX_ErrorIncorrectStateTransition);
             il.command(OMX_CommandStateSet, OMX_StateLoaded);
             il.expect_error(OMX_ErrorIncorrectStateTransition); // of the transition to Idle
             il.free_buffers(0);
             il.expect_complete(OMX_CommandStateSet, OMX_StateLoaded);
         }
     }},
    {"NothingEndsAWaitForResources",
     [](Il &il) {
         il.bring_to(OMX_StateWaitForResources);
         EXPECT_EQ(il.allocate(0), kNotNow);
         il.change_state(OMX_StateIdle); // the client's command
         EXPECT_EQ(il.client.count(OMX_EventResourcesAcquired), 0u);
     }},
    {"InvalidRefusesCalls",
     [](Il &il) {
         auto definition = il.definition(0);
         il.bring_to(OMX_StateIdle);
         il.change_state(OMX_StateInvalid);
         for (OMX_ERRORTYPE result :
              {il.send(OMX_CommandFlush, OMX_ALL), il.empty(il.buffers[0][0]), il.allocate(1),
               il.get(OMX_IndexParamPortDefinition, &definition),
               il.set(OMX_IndexParamPortDefinition, &definition),
               il.component->GetConfig(il.component, OMX_IndexMax, &definition),
               il.component->ComponentTunnelRequest(il.component, 0, nullptr, 0, nullptr)}) {
             EXPECT_EQ(result, OMX_ErrorInvalidState);
         }
         EXPECT_EQ(omx_base_get_state(il.sink), OMX_StateInvalid);
         il.free_buffers(0);
         il.free_buffers(1);
     }},
    {"InvalidTakesTheRecordersParameters",
     [](Il &il) {
         il.bring_to(OMX_StateInvalid);
         OMX_AUDIO_PARAM_PCMMODETYPE pcm = {.nSamplingRate = 48000};
         EXPECT_EQ(il.set(OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
         EXPECT_EQ(il.component->SetConfig(il.component, OMX_IndexMax, &pcm), OMX_ErrorNone);
         EXPECT_EQ(il.client.start(), OMX_ErrorNone);
         il.stop_recording(TDMBREC_STOP_STORAGE); // no file was opened
     }},
    {"NoStateEndsARecording",
     [](Il &il) {
         EXPECT_EQ(il.client.start(), OMX_ErrorNone);
         for (OMX_STATETYPE target :
              {OMX_StateIdle, OMX_StateExecuting, OMX_StateIdle, OMX_StateLoaded}) {
             il.change_state(target);
         }
         EXPECT_EQ(il.client.count(TDMBREC_EVENT_END_OF_RECORDING), 0u);
         il.stop_recording(TDMBREC_STOP_STORAGE);
     }},
    {"AHandleIsFreedInAnyState",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         il.hand_over(il.buffers[0][0]);
         EXPECT_EQ(il.client.start(), OMX_ErrorNone);
         il.client.destroy();
         il.expect_event({TDMBREC_EVENT_END_OF_RECORDING, 0, TDMBREC_STOP_STORAGE}); // no file
         EXPECT_TRUE(il.wait_returned(0).empty());
     }},
    {"AHandleWithoutComponentIsRefused",
     [](Il &il) {
         OMX_STATETYPE state = OMX_StateMax;
         EXPECT_EQ(il.component->GetState(nullptr, &state), OMX_ErrorBadParameter);
         EXPECT_EQ(il.component->ComponentDeInit(il.component), OMX_ErrorNone);
         EXPECT_EQ(OMX_GetState(il.component, &state), OMX_ErrorInvalidComponent);
         EXPECT_EQ(il.set(TDMBREC_INDEX_STOP, &state), OMX_ErrorInvalidComponent);
         EXPECT_EQ(il.send(OMX_CommandFlush, OMX_ALL), OMX_ErrorInvalidComponent);
     }},
    {"CommandsAreCheckedAtOnce",
     [](Il &il) {
         OMX_MARKTYPE mark = {};
         EXPECT_EQ(il.send(OMX_CommandMax, 0), OMX_ErrorBadParameter);
         EXPECT_EQ(il.send(OMX_CommandStateSet, OMX_StateWaitForResources + 1),
                   OMX_ErrorBadParameter);
         EXPECT_EQ(il.send(OMX_CommandPortEnable, kPortCount), OMX_ErrorBadPortIndex);
         EXPECT_EQ(il.send(OMX_CommandMarkBuffer, OMX_ALL, &mark), OMX_ErrorBadPortIndex);
         EXPECT_EQ(il.send(OMX_CommandMarkBuffer, 0), OMX_ErrorBadParameter);
     }},
    {"SendCommandDoesNotWait",
     [](Il &il) {
         std::mutex gate;
         il.client.on_event = [&](const IlEvent &) { const std::lock_guard guard(gate); };
         {
             const std::lock_guard guard(gate);
             il.command(OMX_CommandPortDisable, 1);
             il.command(OMX_CommandPortEnable, 1);
             EXPECT_TRUE(il.client.events().empty());
         }
         il.expect_complete(OMX_CommandPortDisable, 1);
         il.expect_complete(OMX_CommandPortEnable, 1);
     }},
    {"AFullQueueRefusesTheNextCommand",
     [](Il &il) {
         uint32_t accepted = 0;
         il.client.on_event = [&](const IlEvent &) { // while the first command is carried out
             if (accepted == 0) {
                 while (il.send(OMX_CommandPortEnable, 0) == OMX_ErrorNone) {
                     accepted++;
                 }
             }
         };
         il.command(OMX_CommandPortEnable, 0);
         for (uint32_t count = 0; count < kMessageCapacity; count++) {
             il.expect_complete(OMX_CommandPortEnable, 0);
         }
         EXPECT_EQ(accepted, kMessageCapacity - 1);
     }},
    {"ACommandThatAnotherOneEndsIsAnswered",
     [](Il &il) {
         il.bring_to(OMX_StateIdle);
         il.command(OMX_CommandPortDisable, 1); // waits for the buffers
         il.command(OMX_CommandPortDisable, 1);
         il.command(OMX_CommandPortEnable, 1);
         il.expect_error(kNotNow, 1);
         il.expect_error(kNotNow, 1);
         il.expect_complete(OMX_CommandPortEnable, 1);
         il.command(OMX_CommandPortDisable, 1);
         ASSERT_EQ(OMX_FreeBuffer(il.component, 1, il.buffers[1].back()), OMX_ErrorNone);
         il.client.on_event = [&](const IlEvent &event) { // so that the enable command is queued
             if (event.data1 == OMX_CommandFlush) {
                 EXPECT_EQ(il.send(OMX_CommandPortEnable, 1), OMX_ErrorNone);
                 EXPECT_EQ(il.allocate(1), OMX_ErrorNone);
             }
         };
         il.expect_all_carried_out(0);
         il.expect_error(kNotNow, 1);
         il.expect_complete(OMX_CommandPortEnable, 1);
         il.command(OMX_CommandPortDisable, 1);
         il.command(OMX_CommandStateSet, OMX_StateLoaded);
         il.command(OMX_CommandStateSet, OMX_StateInvalid);
         for (int command = 0; command < 3; command++) {
             il.expect_error(OMX_ErrorInvalidState);
         }
     }},
};

} // namespace

std::span<const IlRow> state_rows()
{
    return kRows;
}

#include "tests/platform/small_component.h"

namespace {

class destruction_test : public framework_test,
                         public testing::WithParamInterface<OMX_STATETYPE> {};

// The fixture destroys the component, and expects that nothing stays allocated.
TEST_P(destruction_test, releases_everything_in_each_state)
{
    bring_to(GetParam());
    for (const auto &port_buffers : buffers)
        for (OMX_BUFFERHEADERTYPE *buffer : port_buffers)
            (void)empty(buffer);
}

INSTANTIATE_TEST_SUITE_P(each_state, destruction_test,
                         testing::Values(OMX_StateInvalid, OMX_StateLoaded, OMX_StateIdle,
                                         OMX_StateExecuting, OMX_StatePause,
                                         OMX_StateWaitForResources));

using lifetime_test = framework_test;

TEST_F(lifetime_test, a_transition_and_a_port_command_may_be_pending_at_the_end)
{
    bring_to(OMX_StateIdle);
    ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
    ASSERT_EQ(send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
}

TEST_F(lifetime_test, a_destroyed_component_refuses_everything_but_its_destruction)
{
    OMX_STATETYPE state = OMX_StateMax;
    EXPECT_EQ(component.ComponentDeInit(&component), OMX_ErrorNone);
    EXPECT_EQ(component.pComponentPrivate, nullptr);
    EXPECT_EQ(omx_base_sink_Destructor(&component), OMX_ErrorNone);
    EXPECT_EQ(component.ComponentDeInit(nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(component.GetState(&component, &state), OMX_ErrorInvalidComponent);
    EXPECT_EQ(send(OMX_CommandFlush, OMX_ALL), OMX_ErrorInvalidComponent);
}

// Every call that the construction makes fails in turn, once and from then on.
TEST(construction_test, a_failure_at_any_call_leaves_nothing_behind)
{
    const int64_t live_before = host_live_allocations();
    for (host_call_t call :
         {HOST_CALL_CALLOC, HOST_CALL_SINK_CONSTRUCTOR, HOST_CALL_VIDEO_PORT_CONSTRUCTOR,
          HOST_CALL_AUDIO_PORT_CONSTRUCTOR, HOST_CALL_TSEM_INIT, HOST_CALL_START_THREAD}) {
        host_reset();
        OMX_COMPONENTTYPE component = {};
        ASSERT_EQ(construct_small_component(&component), OMX_ErrorNone);
        EXPECT_EQ(component.ComponentDeInit(&component), OMX_ErrorNone);
        const uint64_t calls = host_call_count(call);
        ASSERT_GT(calls, 0u) << call;
        for (uint32_t pass = 0; pass < calls; pass++) {
            for (uint32_t fail : {1u, UINT32_MAX}) {
                host_reset();
                host_fail_call(call, pass, fail);
                component = {};
                EXPECT_EQ(construct_small_component(&component), OMX_ErrorInsufficientResources)
                    << call << " " << pass;
                EXPECT_EQ(omx_base_sink_Destructor(&component), OMX_ErrorNone);
                EXPECT_EQ(host_live_allocations(), live_before) << call << " " << pass;
            }
        }
    }
    host_reset();
}

} // namespace

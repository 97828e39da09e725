#include "tests/platform/small_component.h"

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

} // namespace

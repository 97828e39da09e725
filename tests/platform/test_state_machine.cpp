#include "tests/platform/framework_test.h"

#include <sys/resource.h>

namespace {

using StateMachine = FrameworkTest;

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

} // namespace

#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"

#include <chrono>
#include <thread>

class BufferLoop : public ComponentTest {};

static const Bytes some_data(100, 7);

TEST_F(BufferLoop, KeepsBuffersUntilExecutingServesVideoFirstAndReportsAMarkOnce)
{
    const auto client = make_client();
    client->to_executing();
    client->set_state(OMX_StatePause);
    std::vector<OMX_U32> order;
    client->on_buffer_back = [&](OMX_BUFFERHEADERTYPE *header) {
        order.push_back(header->nInputPortIndex);
    };
    client->before_empty = [&](OMX_BUFFERHEADERTYPE *header) {
        header->hMarkTargetComponent = client->handle();
        header->pMarkData = &order;
    };
    OMX_BUFFERHEADERTYPE *const marked = client->post(1, some_data, 0);
    client->before_empty = nullptr;
    OMX_BUFFERHEADERTYPE *const video = client->post(0, some_data, 0);
    EXPECT_FALSE(client->wait_until_back(marked, 50));
    client->set_state(OMX_StateExecuting);
    EXPECT_TRUE(client->wait_until_back(marked) && client->wait_until_back(video));
    EXPECT_EQ(order, (std::vector<OMX_U32>{0, 1}));
    EXPECT_EQ(client->events(OMX_EventMark), (std::vector<IlEvent>{{OMX_EventMark, 1, 0, &order}}));
    client->post(1, some_data, 0);
    EXPECT_TRUE(client->wait_until_back(marked));
    EXPECT_EQ(client->events(OMX_EventMark).size(), 1u) << "a second trip without a mark";
    client->to_loaded();
}

TEST_F(BufferLoop, GivesBackWhatItHoldsWhenAPortIsFlushed)
{
    const auto client = make_client();
    client->to_executing();
    client->set_state(OMX_StatePause);
    OMX_BUFFERHEADERTYPE *const in_hand = client->post(0, some_data, 0);
    OMX_BUFFERHEADERTYPE *const queued = client->post(0, some_data, 1);
    OMX_BUFFERHEADERTYPE *const other = client->post(1, some_data, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(OMX_SendCommand(client->handle(), OMX_CommandFlush, 0, nullptr), OMX_ErrorNone);
    EXPECT_TRUE(client->wait_until_back(in_hand) && client->wait_until_back(queued));
    EXPECT_EQ(in_hand->nFilledLen, 100u) << "nothing consumed it";
    EXPECT_FALSE(client->wait_until_back(other, 50));
    client->to_loaded();
}

TEST_F(BufferLoop, ReportsTheEndOfStreamOnlyForThatFlagAlone)
{
    const auto client = make_client();
    client->to_executing();
    client->send(0, some_data, 0, OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME);
    client->send(1, {}, 0, OMX_BUFFERFLAG_EOS);
    EXPECT_EQ(client->events(TDMBREC_EVENT_END_OF_STREAM),
              (std::vector<IlEvent>{{TDMBREC_EVENT_END_OF_STREAM, 0, 1, nullptr}}));
    client->to_loaded();
}

TEST_F(BufferLoop, EndsOnANullBuffer)
{
    const auto client = make_client();
    client->to_executing();
    host_fail_call(kHostCallDequeue, 0, 1);
    (void)client->post(0, some_data, 0);
    for (int i = 0; i < 60000 && !has_logged("Had NULL input buffer!!\n"); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(has_logged("Had NULL input buffer!!\n"));
    client->destroy();
}

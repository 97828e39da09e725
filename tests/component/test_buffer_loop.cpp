#include "component/client_events.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"

#include <algorithm>
#include <chrono>
#include <thread>

class BufferLoop : public ComponentTest {};

static const Bytes some_data(100, 7);

TEST_F(BufferLoop, ConsumesEveryBufferWhileNothingIsRecorded)
{
    const auto client = make_client();
    client->to_executing();
    for (OMX_U32 port : {0u, 1u}) {
        OMX_BUFFERHEADERTYPE *const header = client->post(port, some_data, 0);
        ASSERT_TRUE(client->wait_until_back(header));
        EXPECT_EQ(header->nFilledLen, 0u);
    }
    OMX_BUFFERHEADERTYPE *const empty = client->post(0, {}, 0);
    EXPECT_TRUE(client->wait_until_back(empty));
    client->to_loaded();
}

TEST_F(BufferLoop, KeepsABufferInHandUntilExecuting)
{
    const auto client = make_client();
    client->to_executing();
    client->set_state(OMX_StatePause);
    OMX_BUFFERHEADERTYPE *const header = client->post(1, some_data, 0);
    EXPECT_FALSE(client->wait_until_back(header, 50));
    client->set_state(OMX_StateExecuting);
    EXPECT_TRUE(client->wait_until_back(header));
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
    EXPECT_TRUE(client->wait_until_back(in_hand));
    EXPECT_TRUE(client->wait_until_back(queued));
    EXPECT_EQ(in_hand->nFilledLen, 100u) << "nothing consumed it";
    EXPECT_FALSE(client->wait_until_back(other, 50));
    client->set_state(OMX_StateIdle);
    EXPECT_TRUE(client->wait_until_back(other));
    client->to_loaded();
}

TEST_F(BufferLoop, ReportsTheEndOfStreamOnlyForThatFlagAlone)
{
    const auto client = make_client();
    client->to_executing();
    client->send(0, some_data, 0, OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME);
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_STREAM), 0u);
    client->send(1, {}, 0, OMX_BUFFERFLAG_EOS);
    const std::vector<IlEvent> events = client->events();
    const auto found = std::find_if(events.begin(), events.end(), [](const IlEvent &e) {
        return e.event == TDMBREC_EVENT_END_OF_STREAM;
    });
    ASSERT_NE(found, events.end());
    EXPECT_EQ(found->data1, 0u);
    EXPECT_EQ(found->data2, 1u);
    client->to_loaded();
}

TEST_F(BufferLoop, ReportsAMarkOnceAlsoWhenTheBufferWaits)
{
    const auto client = make_client();
    client->to_executing();
    client->set_state(OMX_StatePause);
    int mark_data = 0;
    client->before_empty = [&](OMX_BUFFERHEADERTYPE *header) {
        header->hMarkTargetComponent = client->handle();
        header->pMarkData = &mark_data;
    };
    OMX_BUFFERHEADERTYPE *const marked = client->post(0, some_data, 0);
    client->before_empty = nullptr;
    OMX_BUFFERHEADERTYPE *const other = client->post(1, some_data, 0);
    client->set_state(OMX_StateExecuting);
    EXPECT_TRUE(client->wait_until_back(marked));
    EXPECT_TRUE(client->wait_until_back(other));
    EXPECT_EQ(client->count(OMX_EventMark), 1u);
    for (const IlEvent &event : client->events()) {
        if (event.event == OMX_EventMark) {
            EXPECT_EQ(event.data1, 1u);
            EXPECT_EQ(event.data2, 0u);
            EXPECT_EQ(event.data, &mark_data);
        }
    }
    marked->hMarkTargetComponent = nullptr;
    client->to_loaded();
}

TEST_F(BufferLoop, ServesVideoFirst)
{
    const auto client = make_client();
    client->to_executing();
    client->set_state(OMX_StatePause);
    std::vector<OMX_U32> order;
    client->on_buffer_back = [&](OMX_BUFFERHEADERTYPE *header) {
        order.push_back(header->nInputPortIndex);
    };
    OMX_BUFFERHEADERTYPE *const audio = client->post(1, some_data, 0);
    OMX_BUFFERHEADERTYPE *const video = client->post(0, some_data, 0);
    client->set_state(OMX_StateExecuting);
    EXPECT_TRUE(client->wait_until_back(audio) && client->wait_until_back(video));
    EXPECT_EQ(order, (std::vector<OMX_U32>{0, 1}));
    client->on_buffer_back = nullptr;
    client->to_loaded();
}

TEST_F(BufferLoop, EndsOnANullBuffer)
{
    const auto client = make_client();
    client->to_executing();
    host_fail_call(HOST_CALL_DEQUEUE, 0, 1);
    (void)client->post(0, some_data, 0);
    for (int i = 0; i < 200 && !has_logged("Had NULL input buffer!!\n"); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(has_logged("Had NULL input buffer!!\n"));
    client->destroy();
}

TEST_F(BufferLoop, LeavesABufferAloneOutsideExecuting)
{
    const auto client = make_client();
    OMX_BUFFERHEADERTYPE header = {};
    header.nFilledLen = 5;
    omx_tdmbrec_component_BufferMgmtCallback(client->handle(), &header);
    EXPECT_EQ(header.nFilledLen, 5u);
}

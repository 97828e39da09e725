#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"

#include <chrono>
#include <thread>

class BufferLoop : public ComponentTest {};

static const Bytes some_data(100, 7);

TEST_F(BufferLoop, ServesVideoFirst)
{
    const auto client = make_client();
    client->to_executing();
    client->set_state(OMX_StatePause);
    std::vector<OMX_U32> order;
    client->on_buffer_back = [&](OMX_BUFFERHEADERTYPE *header) {
        order.push_back(header->nInputPortIndex);
    };
    const uint64_t taken = host_call_count(kHostCallDequeue);
    OMX_BUFFERHEADERTYPE *const audio = client->post(1, some_data, 0);
    OMX_BUFFERHEADERTYPE *const video = client->post(0, some_data, 0);
    while (host_call_count(kHostCallDequeue) < taken + 2) { // until the buffer thread has both
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    client->set_state(OMX_StateExecuting);
    EXPECT_TRUE(client->wait_until_back(audio) && client->wait_until_back(video));
    EXPECT_EQ(order, (std::vector<OMX_U32>{0, 1}));
    client->to_loaded();
}

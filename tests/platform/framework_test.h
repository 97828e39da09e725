// The base framework with the recorder on top of it, and a client that checks every event and every
// returned buffer.
#ifndef TESTS_PLATFORM_FRAMEWORK_TEST_H
#define TESTS_PLATFORM_FRAMEWORK_TEST_H

#include "component/omx_tdmbrec_component.h"
#include "platform/host/host_control.h"
#include "tests/support/il_client.h"
#include "tests/support/platform_test.h"

#include <array>
#include <chrono>
#include <thread>
#include <utility>

constexpr OMX_U32 kPortCount = TDMBREC_PORT_COUNT;
constexpr OMX_U32 kBufferBytes = 64;

using Event = std::array<OMX_U32, 3>; // OMX_EVENTTYPE and its two data
using BufferList = std::vector<OMX_BUFFERHEADERTYPE *>;

class FrameworkTest : public PlatformTest {
  public:
    FrameworkTest()
    {
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            sink->ppPorts[port]->stPortDefinition.nBufferSize = kBufferBytes;
        }
        client.on_buffer_back = [this](OMX_BUFFERHEADERTYPE *header) {
            const std::lock_guard guard(lock);
            returned.push_back(header);
        };
    }

    void TearDown() override
    {
        client.destroy();
        EXPECT_EQ(client.events().size(), events_seen);
        PlatformTest::TearDown();
    }

    OMX_ERRORTYPE send(OMX_COMMANDTYPE command, OMX_U32 param, void *data = nullptr)
    {
        return OMX_SendCommand(component, command, param, data);
    }

    template <typename Condition>
    static void wait_until(Condition condition)
    {
        for (int count = 0; !condition() && count < 1500000; count++) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        ASSERT_TRUE(condition());
    }

    Event next_event()
    {
        wait_until([&] { return client.events().size() > events_seen; });
        const IlEvent event = client.events().at(events_seen++);
        return {event.event, event.data1, event.data2};
    }

    void expect_error(OMX_ERRORTYPE error, OMX_U32 data2 = 0)
    {
        EXPECT_EQ(next_event(), (Event{OMX_EventError, error, data2}));
    }

    void expect_complete(OMX_COMMANDTYPE command, OMX_U32 param)
    {
        EXPECT_EQ(next_event(), (Event{OMX_EventCmdComplete, command, param}));
    }

    // Waits until this many buffers have been returned, and takes the list.
    BufferList wait_returned(size_t count)
    {
        wait_until([&] {
            const std::lock_guard guard(lock);
            return returned.size() >= count;
        });
        const std::lock_guard guard(lock);
        return std::exchange(returned, {});
    }

    OMX_ERRORTYPE allocate(OMX_U32 port)
    {
        OMX_BUFFERHEADERTYPE *header = nullptr;
        const OMX_ERRORTYPE error =
            OMX_AllocateBuffer(component, &header, port, nullptr, kBufferBytes);
        if (error == OMX_ErrorNone) {
            buffers[port].push_back(header);
        }
        return error;
    }

    void populate(OMX_U32 port)
    {
        while (!sink->ppPorts[port]->stPortDefinition.bPopulated) {
            ASSERT_EQ(allocate(port), OMX_ErrorNone);
        }
    }

    void free_buffers(OMX_U32 port)
    {
        for (OMX_BUFFERHEADERTYPE *header : std::exchange(buffers[port], {})) {
            ASSERT_EQ(OMX_FreeBuffer(component, port, header), OMX_ErrorNone);
        }
    }

    // Changes the state and allocates or frees the buffers for it.
    void change_state(OMX_STATETYPE target)
    {
        ASSERT_EQ(send(OMX_CommandStateSet, target), OMX_ErrorNone);
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            if (target == OMX_StateIdle) {
                populate(port);
            } else if (target == OMX_StateLoaded) {
                free_buffers(port);
            }
        }
        if (target == OMX_StateInvalid) {
            expect_error(OMX_ErrorInvalidState);
        } else {
            expect_complete(OMX_CommandStateSet, target);
        }
    }

    // Goes from Loaded to any state on the shortest path.
    void bring_to(OMX_STATETYPE target)
    {
        if (target == OMX_StateExecuting || target == OMX_StatePause) {
            change_state(OMX_StateIdle);
        }
        if (target != OMX_StateLoaded) {
            change_state(target);
        }
    }

    OMX_ERRORTYPE empty(OMX_BUFFERHEADERTYPE *header)
    {
        header->nFilledLen = kBufferBytes;
        return OMX_EmptyThisBuffer(component, header);
    }

    OMX_COMPONENTTYPE handle = {};
    OMX_COMPONENTTYPE *const component = &handle;
    IlClient client = {
        [this](OMX_CALLBACKTYPE *callbacks, void *app_data) {
            EXPECT_EQ(omx_tdmbrec_component_Init(component), OMX_ErrorNone);
            component->SetCallbacks(component, callbacks, app_data);
            return component;
        },
        [](OMX_COMPONENTTYPE *made) { EXPECT_EQ(made->ComponentDeInit(made), OMX_ErrorNone); }};
    omx_base_sink_PrivateType *const sink =
        static_cast<omx_base_sink_PrivateType *>(handle.pComponentPrivate);
    size_t events_seen = 0;
    std::mutex lock;
    BufferList returned; // under lock
    BufferList buffers[kPortCount];
};

#endif // TESTS_PLATFORM_FRAMEWORK_TEST_H

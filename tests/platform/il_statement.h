// What OpenMAX IL requires of the recorder, row by row, and what the recorder does instead.
#ifndef TESTS_PLATFORM_IL_STATEMENT_H
#define TESTS_PLATFORM_IL_STATEMENT_H

#include "tests/platform/framework_test.h"

#include <span>

constexpr OMX_ERRORTYPE kNotNow = OMX_ErrorIncorrectStateOperation;
constexpr char kRecordedFile[] = "/mnt/sdcard/recording.mp4";

// A component with a client, in Loaded.
class Il : public FrameworkTest {
  public:
    void TestBody() override
    {
    }

    // Frees the handle, and expects that every event has been expected.
    void finish()
    {
        client.destroy();
        EXPECT_EQ(client.events().size(), events_seen);
    }

    void expect_event(const Event &event)
    {
        EXPECT_EQ(next_event(), event);
    }

    void command(OMX_COMMANDTYPE name, OMX_U32 param, void *data = nullptr)
    {
        ASSERT_EQ(send(name, param, data), OMX_ErrorNone);
    }

    // Waits until the message thread has carried out every earlier command.
    void expect_all_carried_out(OMX_U32 flushed_port)
    {
        command(OMX_CommandFlush, flushed_port);
        expect_complete(OMX_CommandFlush, flushed_port);
    }

    // Disables a port and frees its buffers.
    void disable(OMX_U32 port)
    {
        command(OMX_CommandPortDisable, port);
        free_buffers(port);
        expect_complete(OMX_CommandPortDisable, port);
    }

    // Empties a buffer and waits until the buffer thread has it.
    void hand_over(OMX_BUFFERHEADERTYPE *buffer)
    {
        const uint64_t taken = host_call_count(kHostCallDequeue);
        ASSERT_EQ(empty(buffer), OMX_ErrorNone);
        wait_until([&] { return host_call_count(kHostCallDequeue) != taken; });
    }

    // Takes a component in Executing through a recording of one picture, which the buffer of port 0
    // holds from the offset on, and leaves the recording open.
    void record_picture(OMX_U32 offset = 0);
    // Stops the recording of record_picture.
    void stop_recording(tdmbrec_stop_reason_t reason = TDMBREC_STOP_CLIENT)
    {
        EXPECT_EQ(client.stop(), OMX_ErrorNone);
        expect_event({TDMBREC_EVENT_END_OF_RECORDING, 0, reason});
    }

    // Expects that the component consumes a buffer with data.
    void expect_consumed(OMX_BUFFERHEADERTYPE *buffer)
    {
        EXPECT_EQ(empty(buffer), OMX_ErrorNone);
        EXPECT_EQ(wait_returned(1), BufferList{buffer});
        EXPECT_EQ(buffer->nFilledLen, 0u);
    }

    OMX_ERRORTYPE get(OMX_U32 index, void *record)
    {
        return OMX_GetParameter(component, OMX_INDEXTYPE(index), record);
    }

    OMX_ERRORTYPE set(OMX_U32 index, void *record)
    {
        return OMX_SetParameter(component, OMX_INDEXTYPE(index), record);
    }

    template <typename Record>
    static Record record_for(OMX_U32 port)
    {
        return {.nSize = sizeof(Record),
                .nVersion = {.nVersion = OMX_VERSION_1_1_2},
                .nPortIndex = port};
    }

    OMX_PARAM_PORTDEFINITIONTYPE definition(OMX_U32 port)
    {
        auto record = record_for<OMX_PARAM_PORTDEFINITIONTYPE>(port);
        EXPECT_EQ(get(OMX_IndexParamPortDefinition, &record), OMX_ErrorNone);
        return record;
    }
};

struct IlRow {
    const char *name; // of the row in docs/openmax-il.md
    void (*expect)(Il &il);
};

// The rows of one area each.
std::span<const IlRow> state_rows();
std::span<const IlRow> buffer_rows();
std::span<const IlRow> port_rows();
std::span<const IlRow> parameter_rows();
std::span<const IlRow> recorder_rows();

#endif // TESTS_PLATFORM_IL_STATEMENT_H

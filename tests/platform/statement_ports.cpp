// The commands that return buffers: flush, disable and enable, and the changes of the state.
#include "tests/platform/il_statement.h"

#include <atomic>
#include <gmock/gmock.h>

namespace {

// A command that returns the buffers of the ports, the state before it, and the later result of
// EmptyThisBuffer.
struct WayBack {
    OMX_STATETYPE state;
    OMX_COMMANDTYPE command;
    OMX_U32 param;
    std::vector<OMX_U32> ports;
    OMX_ERRORTYPE empty_result;
};

void expect_answers(Il &il, const WayBack &way)
{
    if (way.empty_result == OMX_ErrorInvalidState) {
        return il.expect_error(OMX_ErrorInvalidState);
    }
    if (way.command == OMX_CommandStateSet) {
        return il.expect_complete(way.command, way.param);
    }
    for (OMX_U32 port : way.ports) {
        il.expect_complete(way.command, port);
    }
}

// Gives each port three buffers, of which the buffer thread takes one.
void fill_ports(Il &il, bool buffer_thread_ends)
{
    for (OMX_U32 port = 0; port < kPortCount; port++) {
        host_fail_call(kHostCallDequeue, 0, port == 1 && buffer_thread_ends ? 1 : 0);
        il.hand_over(il.buffers[port][0]);
    }
    for (size_t index : {1u, 2u}) {
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            ASSERT_EQ(il.empty(il.buffers[port][index]), OMX_ErrorNone);
        }
    }
}

// The buffers come back before the answer, with their data.
void expect_way_back(const WayBack &way, bool buffer_thread_ends)
{
    Il il;
    BufferList expected;
    il.bring_to(way.state);
    fill_ports(il, buffer_thread_ends);
    for (OMX_U32 port : way.ports) {
        expected.insert(expected.end(), il.buffers[port].begin(), il.buffers[port].begin() + 3);
    }
    size_t returned_before = 0;
    il.client.on_event = [&](const IlEvent &) {
        const std::lock_guard guard(il.lock);
        returned_before = std::max(returned_before, il.returned.size());
    };
    il.command(way.command, way.param);
    const bool waits_for_free = way.empty_result == kNotNow;
    if (!waits_for_free) {
        expect_answers(il, way);
        EXPECT_EQ(returned_before, expected.size());
    }
    const BufferList back = il.wait_returned(expected.size());
    EXPECT_THAT(back, testing::UnorderedElementsAreArray(expected));
    for (const OMX_BUFFERHEADERTYPE *buffer : back) {
        EXPECT_EQ(buffer->nFilledLen, kBufferBytes);
    }
    EXPECT_TRUE(way.empty_result == OMX_ErrorNone ||
                il.empty(il.buffers[1][0]) == way.empty_result);
    for (OMX_U32 port : way.ports) {
        EXPECT_EQ(tsem_value(il.sink->ppPorts[port]->pBufferSem), 0u);
        if (waits_for_free) {
            il.free_buffers(port);
        }
    }
    if (waits_for_free) {
        expect_answers(il, way);
    }
    il.finish();
}

// The buffer thread runs or has ended.
void expect_way_back(const WayBack &way)
{
    expect_way_back(way, false);
    expect_way_back(way, true);
}

std::mutex gate;
std::atomic<bool> is_inside;

void wait_at_gate()
{
    is_inside = true;
    const std::lock_guard guard(gate);
}

const IlRow kRows[] = {
    {"FlushReturnsTheBuffersOfItsPort",
     [](Il &) { expect_way_back({OMX_StatePause, OMX_CommandFlush, 0, {0}, OMX_ErrorNone}); }},
    {"FlushOfAllPortsAnswersForEach",
     [](Il &) {
         expect_way_back({OMX_StateIdle, OMX_CommandFlush, OMX_ALL, {0, 1}, OMX_ErrorNone});
     }},
    {"FlushWaitsForTheBufferInWork",
     [](Il &il) {
         il.sink->pfnBufferMgmtCallback = [](OMX_COMPONENTTYPE *, OMX_BUFFERHEADERTYPE *) {
             wait_at_gate();
         };
         host_set_log_sink([](void *, int, const char *, const char *) { wait_at_gate(); },
                           nullptr);
         for (uint32_t ends : {0u, 1u}) { // the buffer thread, on a null buffer, which it logs
             il.bring_to(OMX_StateExecuting);
             host_fail_call(kHostCallDequeue, 0, ends);
             is_inside = false;
             {
                 const std::lock_guard guard(gate);
                 ASSERT_EQ(il.empty(il.buffers[0][0]), OMX_ErrorNone);
                 il.wait_until([] { return is_inside.load(); });
                 ASSERT_EQ(il.empty(il.buffers[1][0]), OMX_ErrorNone);
                 il.command(OMX_CommandFlush, OMX_ALL);
                 std::this_thread::sleep_for(std::chrono::milliseconds(20));
                 EXPECT_TRUE(il.client.events().size() == il.events_seen &&
                             il.wait_returned(0).empty());
             }
             il.expect_complete(OMX_CommandFlush, 0);
             il.expect_complete(OMX_CommandFlush, 1);
             EXPECT_EQ(il.wait_returned(2), (BufferList{il.buffers[0][0], il.buffers[1][0]}));
             il.change_state(OMX_StateIdle);
             il.change_state(OMX_StateLoaded); // no count is left for the next round
         }
     }},
    {"FlushNeedsBuffers",
     [](Il &il) {
         il.command(OMX_CommandFlush, 0);
         il.expect_error(kNotNow);
     }},
    {"IdleReturnsEveryBuffer",
     [](Il &) {
         expect_way_back(
             {OMX_StatePause, OMX_CommandStateSet, OMX_StateIdle, {0, 1}, OMX_ErrorNone});
     }},
    {"LoadedReturnsEveryBuffer",
     [](Il &) {
         expect_way_back({OMX_StateIdle, OMX_CommandStateSet, OMX_StateLoaded, {0, 1}, kNotNow});
     }},
    {"InvalidReturnsEveryBuffer",
     [](Il &) {
         expect_way_back({OMX_StatePause,
                          OMX_CommandStateSet,
                          OMX_StateInvalid,
                          {0, 1},
                          OMX_ErrorInvalidState});
     }},
    {"DisableReturnsBuffersAndWaits",
     [](Il &) { expect_way_back({OMX_StatePause, OMX_CommandPortDisable, 1, {1}, kNotNow}); }},
    {"TheOtherPortContinues",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.command(OMX_CommandPortDisable, 1);
         il.expect_consumed(il.buffers[0][0]);
         il.free_buffers(1);
         il.expect_complete(OMX_CommandPortDisable, 1);
         il.expect_consumed(il.buffers[0][1]);
     }},
    {"PortsChangeAtOnceInLoaded",
     [](Il &il) {
         for (const auto &[command, enabled] :
              {std::pair{OMX_CommandPortDisable, false}, {OMX_CommandPortEnable, true}}) {
             il.command(command, OMX_ALL);
             for (OMX_U32 port = 0; port < kPortCount; port++) {
                 il.expect_complete(command, port);
                 EXPECT_EQ(il.definition(port).bEnabled != 0, enabled);
             }
         }
     }},
    {"EnableWaitsForTheBuffers",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.disable(1);
         il.command(OMX_CommandPortEnable, 1);
         for (int count = 0; count < 3; count++) {
             EXPECT_EQ(il.allocate(1), OMX_ErrorNone);
         }
         il.expect_all_carried_out(0);
         EXPECT_EQ(il.empty(il.buffers[1][0]), kNotNow);
         EXPECT_EQ(il.allocate(1), OMX_ErrorNone);
         il.expect_complete(OMX_CommandPortEnable, 1);
         il.expect_consumed(il.buffers[1][0]);
         il.disable(1);
         il.populate(1); // before the command
         il.command(OMX_CommandPortEnable, 1);
         il.expect_complete(OMX_CommandPortEnable, 1);
     }},
};

} // namespace

std::span<const IlRow> port_rows()
{
    return kRows;
}

// Marks, the end of the stream, what a recording makes of the buffers, threads, and many
// components.
#include "tests/platform/il_statement.h"
#include "tests/support/programme.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>

namespace {

const Bytes kSps = {0x67, 66, 0, 13, 0x80, 9, 9, 9};
const Bytes kPps = {0x68, 0x80, 9, 9};
const Bytes kSlice = {0x65, 9, 9, 9, 9, 9, 9, 9, 9, 9};
const Event kEndOfStream = {TDMBREC_EVENT_END_OF_STREAM, 0, 1};

const IlRow kRows[] = {
    {"EachMarkGoesToTheNextBufferWithoutOne",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         int data[3];
         for (size_t index : {1u, 2u}) {
             OMX_MARKTYPE mark = {data, &data[index]};
             il.command(OMX_CommandMarkBuffer, 1, &mark);
             mark = {}; // the command has a copy
             il.expect_complete(OMX_CommandMarkBuffer, 1);
         }
         const BufferList &buffers = il.buffers[1];
         buffers[0]->hMarkTargetComponent = buffers[0]->pMarkData = &data[0]; // the client's own
         for (size_t index = 0; index < 4; index++) {
             ASSERT_EQ(il.empty(buffers[index]), OMX_ErrorNone);
             EXPECT_EQ(buffers[index]->hMarkTargetComponent, index < 3 ? data : nullptr);
             EXPECT_EQ(buffers[index]->pMarkData, index < 3 ? &data[index] : nullptr);
         }
     }},
    {"SixteenMarksCanWait",
     [](Il &il) {
         OMX_MARKTYPE mark = {&il, nullptr};
         il.command(OMX_CommandMarkBuffer, 0, &mark);
         il.expect_error(kNotNow); // in Loaded
         il.bring_to(OMX_StateIdle);
         for (int count = 0; count < 16; count++) {
             il.command(OMX_CommandMarkBuffer, 0, &mark);
             il.expect_complete(OMX_CommandMarkBuffer, 0);
         }
         il.command(OMX_CommandMarkBuffer, 0, &mark);
         il.expect_error(OMX_ErrorInsufficientResources);
     }},
    {"AMarkIsReportedOnceWithOne",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         OMX_MARKTYPE mark = {il.component, &mark};
         il.command(OMX_CommandMarkBuffer, 1, &mark);
         il.expect_complete(OMX_CommandMarkBuffer, 1);
         EXPECT_EQ(il.empty(il.buffers[1][0]), OMX_ErrorNone);
         il.expect_event({OMX_EventMark, 1, 0});
         EXPECT_EQ(il.client.events().back().data, &mark);
         il.change_state(OMX_StateExecuting);
         EXPECT_EQ(il.wait_returned(1), BufferList{il.buffers[1][0]});
         il.expect_consumed(il.buffers[1][0]); // a second trip without a mark
     }},
    {"AMarkForAnotherComponentStays",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.buffers[0][0]->hMarkTargetComponent = il.buffers[0][0]->pMarkData = &il;
         il.expect_consumed(il.buffers[0][0]);
         EXPECT_EQ(il.buffers[0][0]->hMarkTargetComponent, &il);
     }},
    {"TheEndOfTheStreamIsEventFive",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         for (OMX_U32 port = 0; port < kPortCount; port++) {
             il.buffers[port][0]->nFlags = OMX_BUFFERFLAG_EOS;
             il.expect_consumed(il.buffers[port][0]);
             il.expect_event(kEndOfStream);
             EXPECT_EQ(il.buffers[port][0]->nFlags, 0u);
         }
     }},
    {"ABufferWithoutDataCanEndTheStream",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.buffers[1][0]->nFlags = OMX_BUFFERFLAG_EOS;
         EXPECT_EQ(OMX_EmptyThisBuffer(il.component, il.buffers[1][0]), OMX_ErrorNone);
         il.expect_event(kEndOfStream);
     }},
    {"AnotherFlagHidesTheEndOfTheStream",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.buffers[0][0]->nFlags = OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME;
         il.expect_consumed(il.buffers[0][0]);
     }},
    {"TheEndOfTheStreamPrecedesItsData",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         il.buffers[0][0]->nFlags = OMX_BUFFERFLAG_EOS;
         EXPECT_EQ(il.empty(il.buffers[0][0]), OMX_ErrorNone);
         il.expect_event(kEndOfStream);
         EXPECT_TRUE(il.wait_returned(0).empty());
     }},
    {"DataBeginsAtTheOffset",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.record_picture(5);
         il.stop_recording();
         const Bytes file = read_file(kRecordedFile);
         Bytes picture = join_nal_units({kSlice});
         picture[3] = static_cast<uint8_t>(kSlice.size());
         EXPECT_NE(std::search(file.begin(), file.end(), picture.begin(), picture.end()),
                   file.end());
     }},
    {"StartCodesBecomeLengths",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         il.record_picture();
         il.stop_recording();
         const OMX_U8 *const sent = il.buffers[0][1]->pBuffer;
         EXPECT_EQ(sent[4 + kSps.size() + 4 + kPps.size() + 3], kSlice.size());
     }},
    {"StartReportsBeforeItReturns",
     [](Il &il) {
         std::thread::id reporter;
         il.client.on_event = [&](const IlEvent &) { reporter = std::this_thread::get_id(); };
         host_fail_call(kHostCallDfopen, 0, 1);
         EXPECT_EQ(il.client.start(), OMX_ErrorNone);
         EXPECT_EQ(reporter, std::this_thread::get_id());
         il.expect_event({TDMBREC_EVENT_END_OF_RECORDING, 0, TDMBREC_STOP_STORAGE});
     }},
    {"CallbacksAreOnTheComponentsThreads",
     [](Il &il) {
         std::thread::id event_thread;
         std::thread::id buffer_thread;
         il.client.on_event = [&](const IlEvent &) { event_thread = std::this_thread::get_id(); };
         il.bring_to(OMX_StateExecuting);
         const auto keep = il.client.on_buffer_back;
         il.client.on_buffer_back = [&](OMX_BUFFERHEADERTYPE *buffer) {
             buffer_thread = std::this_thread::get_id();
             keep(buffer);
         };
         il.expect_consumed(il.buffers[0][0]);
         EXPECT_NE(event_thread, std::this_thread::get_id());
         EXPECT_NE(buffer_thread, std::this_thread::get_id());
         EXPECT_NE(buffer_thread, event_thread);
     }},
    {"CallbacksMayCallTheComponent",
     [](Il &il) {
         std::atomic<int> trips = 0;
         const auto keep = il.client.on_buffer_back;
         il.client.on_buffer_back = [&](OMX_BUFFERHEADERTYPE *buffer) {
             if (++trips < 100) {
                 EXPECT_EQ(il.empty(buffer), OMX_ErrorNone);
             } else {
                 keep(buffer);
             }
         };
         il.client.on_event = [&](const IlEvent &event) {
             if (event.data2 == OMX_StateExecuting) {
                 EXPECT_EQ(il.definition(0).bPopulated, OMX_TRUE);
                 EXPECT_EQ(il.empty(il.buffers[0][0]), OMX_ErrorNone);
                 EXPECT_EQ(il.send(OMX_CommandPortDisable, 1), OMX_ErrorNone);
                 il.free_buffers(1);
             }
         };
         il.bring_to(OMX_StateExecuting);
         il.expect_complete(OMX_CommandPortDisable, 1);
         EXPECT_EQ(il.wait_returned(1), BufferList{il.buffers[0][0]});
     }},
    // The client empties each returned buffer again and flushes from a second thread, while the
    // state goes up and down: no buffer may be lost or returned twice, and nothing may hang.
    {"ManyThreadsMayCallTheComponent",
     [](Il &il) {
         std::atomic<bool> stop = false;
         std::atomic<uint32_t> returns = 0;
         const auto keep = il.client.on_buffer_back;
         il.client.on_buffer_back = [&](OMX_BUFFERHEADERTYPE *buffer) {
             returns++;
             if (il.empty(buffer) != OMX_ErrorNone) {
                 keep(buffer);
             }
         };
         std::thread flusher([&] {
             for (OMX_U32 port = 0; !stop; port = port == 0 ? 1 : port == 1 ? OMX_ALL : 0) {
                 (void)il.send(OMX_CommandFlush, port);
                 std::this_thread::sleep_for(std::chrono::milliseconds(1));
             }
         });
         const auto go_to = [&](OMX_STATETYPE target, auto while_going) {
             const Event wanted = {OMX_EventCmdComplete, OMX_CommandStateSet, target};
             // The flushes may have filled the command queue.
             il.wait_until([&] { return il.send(OMX_CommandStateSet, target) == OMX_ErrorNone; });
             for (OMX_U32 port = 0; port < kPortCount; port++) {
                 while_going(port);
             }
             while (il.next_event() != wanted && !il.HasFatalFailure()) {
             }
         };
         for (int round = 0; round < 60 && !il.HasFatalFailure(); round++) {
             go_to(OMX_StateIdle, [&](OMX_U32 port) { il.populate(port); });
             go_to(OMX_StateExecuting, [&](OMX_U32 port) {
                 for (OMX_BUFFERHEADERTYPE *buffer : il.buffers[port]) {
                     ASSERT_EQ(il.empty(buffer), OMX_ErrorNone);
                 }
             });
             il.wait_until([&, before = returns.load()] { return returns >= before + 50; });
             go_to(OMX_StateIdle, [](OMX_U32) {});
             go_to(OMX_StateLoaded, [&](OMX_U32 port) {
                 EXPECT_EQ(il.wait_returned(port == 0 ? 8 : 0).size(), port == 0 ? 8u : 0u);
                 il.free_buffers(port);
             });
         }
         stop = true;
         flusher.join();
         il.client.destroy();
         il.events_seen = il.client.events().size();
     }},
    {"SixtyFourComponentsLiveAndOneRecords",
     [](Il &) {
         std::vector<std::unique_ptr<Il>> components(64);
         for (std::unique_ptr<Il> &il : components) {
             il = std::make_unique<Il>();
             il->bring_to(OMX_StateExecuting);
         }
         Il &recorder = *components[40];
         recorder.record_picture();
         for (const std::unique_ptr<Il> &il : components) {
             if (il.get() != &recorder) {
                 EXPECT_EQ(il->client.start(), OMX_ErrorInsufficientResources);
             }
             il->expect_consumed(il->buffers[1][0]);
             il->change_state(OMX_StatePause);
         }
         recorder.stop_recording();
         EXPECT_GT(std::filesystem::file_size(kRecordedFile), 0u);
         EXPECT_EQ(components[0]->client.start(), OMX_ErrorNone); // now it is free
         components[0]->stop_recording(TDMBREC_STOP_STORAGE);     // it opened no file
         for (const std::unique_ptr<Il> &il : components) {
             il->change_state(OMX_StateIdle);
             il->change_state(OMX_StateLoaded);
             il->finish();
         }
     }},
};

} // namespace

void Il::record_picture(OMX_U32 offset)
{
    const Bytes delimiter = {0, 0, 0, 1, 9, 0xF0}; // sets the time base
    const Bytes picture = join_nal_units({kSps, kPps, kSlice});
    std::filesystem::remove(kRecordedFile);
    EXPECT_EQ(client.set_path(kRecordedFile), OMX_ErrorNone);
    EXPECT_EQ(client.start(), OMX_ErrorNone);
    OMX_TICKS time_us = 1000000;
    for (const Bytes &data : {delimiter, picture}) {
        OMX_BUFFERHEADERTYPE *const buffer = buffers[0][time_us == 1000000 ? 0 : 1];
        std::copy(data.begin(), data.end(), buffer->pBuffer + offset);
        buffer->nOffset = offset;
        buffer->nFilledLen = static_cast<OMX_U32>(data.size());
        buffer->nTimeStamp = time_us;
        ASSERT_EQ(OMX_EmptyThisBuffer(component, buffer), OMX_ErrorNone);
        EXPECT_EQ(wait_returned(1), BufferList{buffer});
        time_us += 40000;
    }
}

std::span<const IlRow> recorder_rows()
{
    return kRows;
}

// Allocation by either side, and the exchange of buffers.
#include "tests/platform/il_statement.h"

#include <algorithm>

namespace {

using Header = OMX_BUFFERHEADERTYPE;

OMX_ERRORTYPE use(Il &il, OMX_U32 port, OMX_U32 bytes, OMX_U8 *data, Header **header)
{
    return OMX_UseBuffer(il.component, header, port, data, bytes, data);
}

const IlRow kRows[] = {
    {"BuffersNeedTheCommandToIdle",
     [](Il &il) {
         EXPECT_EQ(il.allocate(0), kNotNow);
         il.bring_to(OMX_StateIdle);
         EXPECT_EQ(il.allocate(0), kNotNow);
     }},
    {"EitherSideMayAllocate", // also for one port
     [](Il &il) {
         OMX_U8 memory[kBufferBytes];
         il.buffers[1].push_back(nullptr);
         il.command(OMX_CommandStateSet, OMX_StateIdle);
         EXPECT_EQ(use(il, 1, kBufferBytes, memory, il.buffers[1].data()), OMX_ErrorNone);
         il.populate(0);
         il.populate(1);
         il.expect_complete(OMX_CommandStateSet, OMX_StateIdle);
         for (const Header *header : il.buffers[1]) {
             EXPECT_TRUE(header->nSize == sizeof(*header) && header->nAllocLen == kBufferBytes);
             EXPECT_TRUE(header->nInputPortIndex == 1 && header->nFilledLen == 0);
             EXPECT_EQ(header->pBuffer == memory, header->pAppPrivate == memory);
             std::fill_n(header->pBuffer, kBufferBytes, OMX_U8{7});
         }
         il.change_state(OMX_StateLoaded); // while the memory is there
     }},
    {"BufferCallsAreChecked",
     [](Il &il) {
         OMX_U8 memory[kBufferBytes + 1];
         Header *header = nullptr;
         il.command(OMX_CommandStateSet, OMX_StateIdle);
         EXPECT_EQ(use(il, 1, kBufferBytes - 1, memory, &header), OMX_ErrorBadParameter);
         EXPECT_EQ(use(il, 0, kBufferBytes, nullptr, &header), OMX_ErrorBadParameter);
         EXPECT_EQ(use(il, 0, kBufferBytes, memory, nullptr), OMX_ErrorBadParameter);
         EXPECT_EQ(use(il, kPortCount, kBufferBytes, memory, &header), OMX_ErrorBadPortIndex);
         ASSERT_EQ(use(il, 0, kBufferBytes + 1, memory, &header), OMX_ErrorNone);
         EXPECT_EQ(OMX_FreeBuffer(il.component, kPortCount, header), OMX_ErrorBadPortIndex);
         EXPECT_EQ(OMX_FreeBuffer(il.component, 1, header), OMX_ErrorBadParameter);
         EXPECT_EQ(OMX_FreeBuffer(il.component, 0, header), OMX_ErrorNone);
         EXPECT_EQ(OMX_FreeBuffer(il.component, 0, header), OMX_ErrorBadParameter);
     }},
    {"NoMemoryForABufferIsReported",
     [](Il &il) {
         il.command(OMX_CommandStateSet, OMX_StateIdle);
         for (host_call_t call : {kHostCallCalloc, kHostCallMalloc}) {
             host_fail_call(call, 0, 1);
             EXPECT_EQ(il.allocate(0), OMX_ErrorInsufficientResources);
         }
     }},
    {"IdleWaitsForTheBuffers",
     [](Il &il) {
         il.command(OMX_CommandStateSet, OMX_StateIdle);
         il.populate(0);
         EXPECT_EQ(il.allocate(0), kNotNow); // one too many
         while (il.buffers[1].size() < 3) {
             ASSERT_EQ(il.allocate(1), OMX_ErrorNone);
         }
         EXPECT_TRUE(il.definition(0).bPopulated && !il.definition(1).bPopulated);
         il.command(OMX_CommandFlush, 0);
         il.expect_error(kNotNow); // still Loaded
         EXPECT_EQ(il.allocate(1), OMX_ErrorNone);
         il.expect_complete(OMX_CommandStateSet, OMX_StateIdle);
     }},
    {"LoadedWaitsForTheBuffers",
     [](Il &il) {
         il.bring_to(OMX_StateIdle);
         il.command(OMX_CommandStateSet, OMX_StateLoaded);
         il.free_buffers(0);
         Header *const last = il.buffers[1].back();
         il.buffers[1].pop_back();
         il.free_buffers(1);
         il.expect_all_carried_out(0);
         EXPECT_EQ(omx_base_get_state(il.sink), OMX_StateIdle);
         EXPECT_EQ(OMX_FreeBuffer(il.component, 1, last), OMX_ErrorNone);
         il.expect_complete(OMX_CommandStateSet, OMX_StateLoaded);
     }},
    {"ADisabledPortNeedsNoBuffers",
     [](Il &il) {
         il.command(OMX_CommandPortDisable, 1);
         il.expect_complete(OMX_CommandPortDisable, 1);
         il.command(OMX_CommandStateSet, OMX_StateIdle);
         EXPECT_EQ(il.allocate(1), kNotNow);
         il.populate(0);
         il.expect_complete(OMX_CommandStateSet, OMX_StateIdle);
     }},
    {"FreeingABufferInUseIsAnError",
     [](Il &il) {
         il.bring_to(OMX_StateIdle);
         Header *const kept = il.buffers[1].front();
         il.buffers[1].erase(il.buffers[1].begin());
         il.free_buffers(1);
         il.expect_error(OMX_ErrorPortUnpopulated, 1); // reported once
         EXPECT_EQ(il.empty(kept), kNotNow);
         il.command(OMX_CommandPortEnable, 1);
         il.populate(1);
         il.expect_complete(OMX_CommandPortEnable, 1);
     }},
    {"EmptyThisBufferChecksTheHeader",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         Header *header = il.buffers[0][0];
         Header good = *header;
         const std::pair<void (*)(Header *), OMX_ERRORTYPE> changes[] = {
             {[](Header *h) { h->nSize--; }, OMX_ErrorBadParameter},
             {[](Header *h) { h->nVersion.s.nVersionMinor = 0; }, OMX_ErrorVersionMismatch},
             {[](Header *h) { h->nInputPortIndex = 1; }, OMX_ErrorBadPortIndex},
             {[](Header *h) { h->nOffset = kBufferBytes + 1; }, OMX_ErrorBadParameter},
             {[](Header *h) { h->nOffset = 1, h->nFilledLen = UINT32_MAX; }, OMX_ErrorBadParameter},
         };
         for (const auto &[change, error] : changes) {
             change(header);
             EXPECT_EQ(OMX_EmptyThisBuffer(il.component, header), error);
             *header = good; // refused, so no other thread reads it
         }
         EXPECT_EQ(OMX_EmptyThisBuffer(il.component, &good), OMX_ErrorBadParameter); // not its own
         EXPECT_EQ(OMX_EmptyThisBuffer(il.component, nullptr), OMX_ErrorBadParameter);
         host_fail_call(kHostCallQueue, 0, 1);
         EXPECT_EQ(il.empty(header), OMX_ErrorInsufficientResources);
         EXPECT_EQ(il.empty(header), OMX_ErrorNone);
     }},
    {"ABufferBelongsToOneSideAtATime",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         il.hand_over(il.buffers[0][0]);
         EXPECT_EQ(OMX_EmptyThisBuffer(il.component, il.buffers[0][0]), kNotNow);
         EXPECT_EQ(OMX_FreeBuffer(il.component, 0, il.buffers[0][0]), kNotNow);
     }},
    {"IdleAndPauseKeepBuffers",
     [](Il &il) {
         for (OMX_STATETYPE state : {OMX_StateIdle, OMX_StatePause}) {
             il.change_state(state);
             il.hand_over(il.buffers[1][0]);
             std::this_thread::sleep_for(std::chrono::milliseconds(20));
             EXPECT_TRUE(il.wait_returned(0).empty());
             il.change_state(OMX_StateExecuting);
             EXPECT_EQ(il.wait_returned(1), BufferList{il.buffers[1][0]});
         }
     }},
    {"BuffersComeBackInOrderAndEmpty",
     [](Il &il) {
         il.bring_to(OMX_StatePause);
         for (Header *header : il.buffers[0]) {
             EXPECT_EQ(il.empty(header), OMX_ErrorNone);
         }
         il.change_state(OMX_StateExecuting);
         EXPECT_EQ(il.wait_returned(4), il.buffers[0]);
         il.expect_consumed(il.buffers[0][0]);
         EXPECT_EQ(OMX_EmptyThisBuffer(il.component, il.buffers[0][0]), OMX_ErrorNone); // no data
         EXPECT_EQ(il.wait_returned(1), BufferList{il.buffers[0][0]});
     }},
    {"OnlyInputsTakeBuffers",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         EXPECT_EQ(il.component->FillThisBuffer(il.component, il.buffers[0][0]),
                   OMX_ErrorBadPortIndex);
         EXPECT_EQ(il.component->UseEGLImage(il.component, &il.buffers[0][0], 0, nullptr, &il),
                   OMX_ErrorNotImplemented);
     }},
};

} // namespace

std::span<const IlRow> buffer_rows()
{
    return kRows;
}

#include "component/frame_fifo.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using Bytes = std::vector<uint8_t>;

static constexpr uint32_t kFifo = 2;

static Bytes oldest_frame()
{
    uint32_t length = 99;
    int64_t time = 0;
    uint32_t extra = 0;
    const uint8_t *const data = QVR_FIFO_GetOneFrame(kFifo, &length, &time, &extra);
    EXPECT_EQ(data == nullptr, length == 0);
    return data == nullptr ? Bytes{} : Bytes(data, data + length);
}

static bool put(const Bytes &frame, int64_t time = 0, uint32_t extra = 0)
{
    const int32_t length = static_cast<int32_t>(frame.size());
    return QVR_FIFO_GetOneFifo5(kFifo, length, time, extra) == 1 &&
           QVR_FIFO_WriteFifo5(kFifo, frame.data(), length) == length && QVR_FIFO_Push(kFifo) == 1;
}

TEST(FrameFifo, HoldsNothingAtFirst)
{
    Bytes storage(100, 7);
    QVR_FIFO_InitBuffer(kFifo, 100, storage.data());
    EXPECT_EQ(storage, Bytes(100, 0));
    for (const uint32_t fifo : {kFifo, 3u, 4u, UINT32_MAX}) { // the last three have no storage
        uint32_t length = 99, extra = 99;
        int64_t time = 99;
        EXPECT_EQ(QVR_FIFO_GetLength(fifo), 0);
        EXPECT_EQ(QVR_FIFO_GetOneFrame(fifo, &length, &time, &extra), nullptr);
        EXPECT_EQ(length, 0u);
        EXPECT_EQ(QVR_FIFO_PopFrame(fifo), 0);
        EXPECT_EQ(QVR_FIFO_GetOneFifo(fifo, 1, 0), fifo == kFifo ? 1 : 0);
    }
}

TEST(FrameFifo, Holds1024FramesAndNoMore)
{
    Bytes storage(100);
    QVR_FIFO_InitBuffer(kFifo, 100, storage.data());
    for (int32_t i = 0; i < QVR_FIFO_FRAMES; i++) {
        ASSERT_EQ(QVR_FIFO_GetLength(kFifo), i);
        ASSERT_EQ(QVR_FIFO_Push(kFifo), 1);
    }
    EXPECT_EQ(QVR_FIFO_GetLength(kFifo), 1024);
    EXPECT_EQ(QVR_FIFO_GetOneFifo(kFifo, 1, 0), 0);
    EXPECT_EQ(QVR_FIFO_WriteFifo(kFifo, storage.data(), 1), 0);
    EXPECT_EQ(QVR_FIFO_WriteFifo5(kFifo, storage.data(), 1), 0);
    EXPECT_EQ(QVR_FIFO_Push(kFifo), 0);
    EXPECT_EQ(QVR_FIFO_PopFrame(kFifo), 1);
    EXPECT_EQ(QVR_FIFO_GetLength(kFifo), 1023);
    EXPECT_TRUE(put({1}));
    EXPECT_EQ(QVR_FIFO_GetLength(kFifo), 1024);
}

TEST(FrameFifo, KeepsAFrameInOnePieceAndOneByteFree)
{
    Bytes storage(100);
    QVR_FIFO_InitBuffer(kFifo, 100, storage.data());
    EXPECT_EQ(QVR_FIFO_GetOneFifo(kFifo, 100, 0), 0) << "never the whole storage";
    EXPECT_EQ(QVR_FIFO_Push(kFifo), 0) << "nothing was reserved";
    EXPECT_EQ(QVR_FIFO_GetLength(kFifo), 0);
    EXPECT_TRUE(put(Bytes(60, 1)));
    EXPECT_TRUE(put(Bytes(30, 2)));
    EXPECT_FALSE(put(Bytes(10, 3))) << "neither after nor before";
    EXPECT_EQ(QVR_FIFO_Push(kFifo), 0) << "full until a frame is popped";
    EXPECT_EQ(QVR_FIFO_PopFrame(kFifo), 1);
    EXPECT_FALSE(put(Bytes(60, 3)));
    EXPECT_EQ(oldest_frame(), Bytes(30, 2));
    EXPECT_EQ(QVR_FIFO_PopFrame(kFifo), 1);
    EXPECT_TRUE(put(Bytes(50, 3))) << "before";
    EXPECT_EQ(storage[0], 3);
    EXPECT_EQ(oldest_frame(), Bytes(50, 3));
}

TEST(FrameFifo, CopiesNothingBeyondItsStorage)
{
    Bytes memory(120, 0xEE); // the last 20 bytes are not the FIFO's
    const Bytes data(200, 5);
    QVR_FIFO_InitBuffer(kFifo, 100, memory.data());
    for (const int32_t length : {101, 200, INT32_MAX, 0, -1, INT32_MIN}) {
        EXPECT_EQ(QVR_FIFO_WriteFifo(kFifo, data.data(), length), 0) << length;
        EXPECT_EQ(QVR_FIFO_WriteFifo5(kFifo, data.data(), length), 0) << length;
    }
    for (const int32_t length : {100, INT32_MAX, -1, INT32_MIN}) {
        EXPECT_EQ(QVR_FIFO_GetOneFifo(kFifo, length, 0), 0) << length;
    }
    EXPECT_EQ(QVR_FIFO_GetOneFifo5(kFifo, 0, 0, 0), 0) << "no room for 32768 bytes";
    EXPECT_EQ(QVR_FIFO_GetOneFifo(kFifo, 70, 0), 1);
    EXPECT_EQ(QVR_FIFO_WriteFifo(kFifo, data.data(), 70), 70);
    EXPECT_EQ(QVR_FIFO_WriteFifo(kFifo, data.data(), 31), 0);
    EXPECT_EQ(QVR_FIFO_WriteFifo5(kFifo, data.data(), 40), 10) << "of the second piece";
    EXPECT_EQ(QVR_FIFO_WriteFifo5(kFifo, data.data(), 90), 0) << "ends where the storage does";
    EXPECT_EQ(Bytes(memory.begin() + 100, memory.end()), Bytes(20, 0xEE));
    Bytes large(140000);
    QVR_FIFO_InitBuffer(kFifo, 140000, large.data());
    for (int i = 0; i < 4; i++) { // a frame of unknown length keeps its room, after a drain too
        for (const uint8_t value : {uint8_t{1}, uint8_t{2}}) {
            EXPECT_EQ(QVR_FIFO_GetOneFifo5(kFifo, 0, 0, 0), 1) << i;
            EXPECT_EQ(QVR_FIFO_WriteFifo5(kFifo, Bytes(9, value).data(), 9), 9);
            EXPECT_EQ(QVR_FIFO_Push(kFifo), 1);
        }
        for (const uint8_t value : {uint8_t{1}, uint8_t{2}}) {
            const Bytes frame = oldest_frame();
            EXPECT_EQ(frame.size(), 32768u);
            EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 9), Bytes(9, value));
            EXPECT_EQ(QVR_FIFO_PopFrame(kFifo), 1);
        }
    }
}

// The content follows from the number, so that a lost, doubled or torn frame is noticed.
static Bytes make_frame(uint32_t number)
{
    Bytes frame(1 + number * 2654435761u % 700);
    for (size_t i = 0; i < frame.size(); i++) {
        frame[i] = static_cast<uint8_t>(number + i);
    }
    return frame;
}

// On a busy machine a short sleep frees the processor sooner than a yield.
template <typename Condition>
static void wait_until(Condition is_met)
{
    for (int i = 1; !is_met(); i++) {
        if (i % 100 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    }
}

TEST(FrameFifo, LosesDoublesAndTearsNothingBetweenTwoThreads)
{
    static constexpr uint32_t kFrames = 100000;
    for (const uint32_t size : {1500u, 200000u}) { // full of data; full of frames
        Bytes storage(size);
        QVR_FIFO_InitBuffer(kFifo, size, storage.data());
        std::thread producer([] {
            for (uint32_t i = 0; i < kFrames; i++) {
                wait_until([i] { return put(make_frame(i), INT64_MIN + i, ~i); });
            }
        });
        uint32_t faults = 0;
        for (uint32_t i = 0; i < kFrames; i++) {
            wait_until([] { return QVR_FIFO_GetLength(kFifo) > 0; });
            uint32_t length = 0, extra = 0;
            int64_t time = 0;
            const uint8_t *const data = QVR_FIFO_GetOneFrame(kFifo, &length, &time, &extra);
            const bool is_intact =
                Bytes(data, data + length) == make_frame(i) && time == INT64_MIN + i && extra == ~i;
            faults += QVR_FIFO_PopFrame(kFifo) == 1 && is_intact ? 0u : 1u;
        }
        producer.join();
        EXPECT_EQ(faults, 0u) << "in a FIFO of " << size << " bytes";
        EXPECT_EQ(QVR_FIFO_GetLength(kFifo), 0);
    }
}

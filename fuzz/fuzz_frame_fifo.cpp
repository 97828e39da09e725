// A frame FIFO with its operations in any order: it stays within its storage, and as long as the
// producer keeps to its order, every frame comes out as it went in. Or frames from a producing to a
// consuming thread.
//
// Input: the storage's size (2 bytes; odd: two threads), then steps: what to do (1), a length (2).
#include "component/frame_fifo.h"
#include "fuzz/input.h"

#include <deque>
#include <thread>

static constexpr uint32_t kFifo = 2;

struct fifo_model {
    std::deque<Bytes> frames;
    bool is_orderly = true; // the producer has kept to its order
};

static void produce(fifo_model &model, int32_t length, uint32_t number)
{
    const Bytes data(length > 0 ? static_cast<size_t>(length) : QVR_FIFO_DEFAULT_BYTES,
                     static_cast<uint8_t>(number));
    if (QVR_FIFO_GetOneFifo5(kFifo, length, number, ~number) == 0) {
        return;
    }
    const int32_t bytes = static_cast<int32_t>(data.size());
    require(QVR_FIFO_WriteFifo5(kFifo, data.data(), bytes) == bytes && QVR_FIFO_Push(kFifo) == 1,
            "what was reserved can be written");
    model.frames.push_back(data);
}

static void consume(fifo_model &model)
{
    uint32_t length = 0;
    int64_t time = 0;
    uint32_t extra = 0;
    const uint8_t *const data = QVR_FIFO_GetOneFrame(kFifo, &length, &time, &extra);
    require((data != nullptr) == (QVR_FIFO_GetLength(kFifo) > 0),
            "a frame that is counted is there");
    if (data != nullptr && model.is_orderly) {
        require(Bytes(data, data + length) == model.frames.front(), "a frame keeps its bytes");
        require(extra == ~static_cast<uint32_t>(time), "a frame keeps its words");
        model.frames.pop_front();
    }
    require(QVR_FIFO_PopFrame(kFifo) == (data != nullptr ? 1 : 0), "a frame can be released");
}

// One operation of the producer, out of its order.
static void disturb(fifo_model &model, uint32_t what, int32_t length)
{
    const Bytes data(static_cast<size_t>(std::max(length, 0)));
    model.is_orderly = false;
    switch (what % 4) {
    case 0:
        (void)QVR_FIFO_GetOneFifo(kFifo, length, 0);
        break;
    case 1:
        (void)QVR_FIFO_WriteFifo(kFifo, data.data(), length);
        break;
    case 2:
        (void)QVR_FIFO_WriteFifo5(kFifo, data.data(), length);
        break;
    case 3:
        (void)QVR_FIFO_Push(kFifo);
        break;
    }
}

static constexpr uint32_t kThreadsFifo = 3;

struct frame_step {
    uint32_t what;
    size_t length;
};

static Bytes frame_of(const frame_step &step, uint32_t number)
{
    Bytes data(step.length);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<uint8_t>(number + i);
    }
    return data;
}

static void produce_all(const std::vector<frame_step> &steps)
{
    for (uint32_t number = 0; number < steps.size(); number++) {
        const Bytes data = frame_of(steps[number], number);
        const int32_t bytes = static_cast<int32_t>(data.size());
        while (QVR_FIFO_GetOneFifo5(kThreadsFifo, bytes, number, ~number) == 0) {
            std::this_thread::yield();
        }
        const int32_t first = steps[number].what % 3 == 0 ? bytes / 2 : bytes; // in two pieces
        require(first == 0 || QVR_FIFO_WriteFifo5(kThreadsFifo, data.data(), first) == first,
                "the first piece can be written");
        const int32_t rest = bytes - first;
        require(rest == 0 || QVR_FIFO_WriteFifo5(kThreadsFifo,
                                                 &data[data.size() - static_cast<size_t>(rest)],
                                                 rest) == rest,
                "the rest can be written");
        require(QVR_FIFO_Push(kThreadsFifo) == 1, "a frame can be handed over");
    }
}

static void consume_all(const std::vector<frame_step> &steps)
{
    for (uint32_t number = 0; number < steps.size(); number++) {
        while (QVR_FIFO_GetLength(kThreadsFifo) == 0) {
            std::this_thread::yield();
        }
        if (steps[number].what % 5 == 0) {
            std::this_thread::yield(); // several frames may queue up
        }
        uint32_t length = 0;
        int64_t time = 0;
        uint32_t extra = 0;
        const uint8_t *const data = QVR_FIFO_GetOneFrame(kThreadsFifo, &length, &time, &extra);
        require(data != nullptr && Bytes(data, data + length) == frame_of(steps[number], number),
                "a frame arrives whole and in order");
        require(time == number && extra == ~number, "and so do its words");
        require(QVR_FIFO_PopFrame(kThreadsFifo) == 1, "a frame can be released");
    }
    require(QVR_FIFO_GetLength(kThreadsFifo) == 0, "no frame arrives twice");
}

// Takes the steps whose frames fit into the storage more than twice.
static void run_threads(fuzz_input input)
{
    Bytes storage(input.u16() + 1);
    std::vector<frame_step> steps;
    while (!input.left.empty() && steps.size() < 50) {
        const frame_step step = {input.u8(), static_cast<size_t>(input.u16() % 1024)};
        if (step.length > 0 && step.length * 2 < storage.size()) {
            steps.push_back(step);
        }
    }
    QVR_FIFO_InitBuffer(kThreadsFifo, static_cast<uint32_t>(storage.size()), storage.data());
    std::thread producer(produce_all, std::cref(steps));
    consume_all(steps);
    producer.join();
}

static void run_in_any_order(fuzz_input input)
{
    Bytes storage(input.u16() + 1);
    QVR_FIFO_InitBuffer(kFifo, static_cast<uint32_t>(storage.size()), storage.data());
    fifo_model model;
    for (uint32_t number = 0; !input.left.empty(); number++) {
        const uint32_t what = input.u8();
        const int32_t length = static_cast<int16_t>(input.u16());
        if (what < 100) {
            produce(model, what & 1 ? length : length % 64, number);
        } else if (what < 240) {
            consume(model);
        } else {
            disturb(model, what, length);
        }
        require(!model.is_orderly ||
                    QVR_FIFO_GetLength(kFifo) == static_cast<int32_t>(model.frames.size()),
                "every frame is counted");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1 && data[1] % 2 == 1) {
        run_threads({{data, size}});
    } else {
        run_in_any_order({{data, size}});
    }
    return 0;
}

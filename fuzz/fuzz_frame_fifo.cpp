// A frame FIFO in any order of its operations: it stays within its storage, and as long as the
// producer keeps to its order, every frame comes out as it went in.
//
// Input: the storage's size (2 bytes), then steps of 3 bytes: what to do, and a length.
#include "component/frame_fifo.h"
#include "fuzz/input.h"

#include <deque>

static constexpr uint32_t FIFO = 2;

struct Model {
    std::deque<Bytes> frames;
    bool is_orderly = true; // the producer has kept to its order
};

static void produce(Model &model, int32_t length, uint32_t number)
{
    const Bytes data(length > 0 ? static_cast<size_t>(length) : QVR_FIFO_DEFAULT_BYTES,
                     static_cast<uint8_t>(number));
    if (QVR_FIFO_GetOneFifo5(FIFO, length, number, ~number) == 0) {
        return;
    }
    const int32_t bytes = static_cast<int32_t>(data.size());
    require(QVR_FIFO_WriteFifo5(FIFO, data.data(), bytes) == bytes && QVR_FIFO_Push(FIFO) == 1,
            "what was reserved can be written");
    model.frames.push_back(data);
}

static void consume(Model &model)
{
    uint32_t length = 0;
    int64_t time = 0;
    uint32_t extra = 0;
    const uint8_t *const data = QVR_FIFO_GetOneFrame(FIFO, &length, &time, &extra);
    require((data != nullptr) == (QVR_FIFO_GetLength(FIFO) > 0),
            "a frame that is counted is there");
    if (data != nullptr && model.is_orderly) {
        require(Bytes(data, data + length) == model.frames.front(), "a frame keeps its bytes");
        require(extra == ~static_cast<uint32_t>(time), "a frame keeps its words");
        model.frames.pop_front();
    }
    require(QVR_FIFO_PopFrame(FIFO) == (data != nullptr ? 1 : 0), "a frame can be released");
}

// Any one operation of the producer.
static void disturb(Model &model, uint32_t what, int32_t length)
{
    const Bytes data(static_cast<size_t>(std::max(length, 0)));
    model.is_orderly = false;
    switch (what % 4) {
    case 0:
        (void)QVR_FIFO_GetOneFifo(FIFO, length, 0);
        break;
    case 1:
        (void)QVR_FIFO_WriteFifo(FIFO, data.data(), length);
        break;
    case 2:
        (void)QVR_FIFO_WriteFifo5(FIFO, data.data(), length);
        break;
    case 3:
        (void)QVR_FIFO_Push(FIFO);
        break;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input = {{data, size}};
    Bytes storage(input.u16() + 1);
    QVR_FIFO_InitBuffer(FIFO, static_cast<uint32_t>(storage.size()), storage.data());
    Model model;
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
                    QVR_FIFO_GetLength(FIFO) == static_cast<int32_t>(model.frames.size()),
                "every frame is counted");
    }
    return 0;
}

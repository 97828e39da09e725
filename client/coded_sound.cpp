#include "client/coded_sound.h"

#include "client/failure.h"
#include "client/omx_core.h"

static constexpr size_t kFifoBytes = 1 << 18;
static_assert(kFifoBytes > 2 * AACENC_OUTPUT_BYTES);

static constexpr uint32_t kKeyFrame = 1; // the flags of every frame of sound

template <typename Function>
static void find(Function &function, const char *name)
{
    function = reinterpret_cast<Function>(omx_core_symbol(TDMBREC_COMPONENT_NAME, name));
    if (function == nullptr) {
        throw failure(exit_code::component,
                      std::string("the recorder component has no function ") + name +
                          ", without which it cannot record in several files");
    }
}

std::unique_ptr<coded_sound> coded_sound_open(int sample_rate)
{
    std::unique_ptr<coded_sound> self = std::make_unique<coded_sound>();
    find(self->calls.init, "QVR_FIFO_InitBuffer");
    find(self->calls.length, "QVR_FIFO_GetLength");
    find(self->calls.reserve, "QVR_FIFO_GetOneFifo5");
    find(self->calls.write, "QVR_FIFO_WriteFifo5");
    find(self->calls.push, "QVR_FIFO_Push");
    find(self->calls.writer, "omx_tdmbrec_audio_thread");
    self->storage.resize(kFifoBytes);
    aac_stream_open(
        self->encoder,
        {.rate = sample_rate, .channels = 2, .bit_rate = TDMBREC_AUDIO_BIT_RATE, .raw = true});
    return self;
}

void coded_sound_clear(coded_sound &self)
{
    self.waiting.clear();
    self.calls.init(QVR_FIFO_AUDIO, static_cast<uint32_t>(self.storage.size()),
                    self.storage.data());
}

void coded_sound_start(coded_sound &self, OMX_COMPONENTTYPE *component)
{
    if (pthread_create(&self.writer, nullptr, self.calls.writer, component) != 0) {
        throw failure(exit_code::component, "the thread for the sound cannot be started");
    }
    self.is_written = true;
}

void coded_sound_add(coded_sound &self, std::span<const int16_t> block, int64_t time_ms)
{
    const std::span<const uint8_t> unit = aac_stream_encode(self.encoder, block);
    self.waiting.push_back({time_ms, {unit.begin(), unit.end()}});
}

bool coded_sound_pass(coded_sound &self)
{
    while (!self.waiting.empty()) {
        const coded_frame &frame = self.waiting.front();
        const int32_t length_bytes = static_cast<int32_t>(frame.bytes.size());
        if (self.calls.reserve(QVR_FIFO_AUDIO, length_bytes, frame.time_ms, kKeyFrame) == 0) {
            return false;
        }
        (void)self.calls.write(QVR_FIFO_AUDIO, frame.bytes.data(), length_bytes);
        (void)self.calls.push(QVR_FIFO_AUDIO);
        self.waiting.pop_front();
    }
    return self.calls.length(QVR_FIFO_AUDIO) == 0;
}

void coded_sound_end(coded_sound &self)
{
    if (self.is_written) {
        pthread_join(self.writer, nullptr);
        self.is_written = false;
    }
}

#include "client/il_session.h"

#include "client/failure.h"
#include "client/omx_core.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

// A run is half of them; the other half is filled while the component has the run. A programme has
// about one and a half PCM buffers per picture.
static constexpr std::array<uint32_t, TDMBREC_PORT_COUNT> kBufferCounts = {32, 64};

// Long enough for a slow disk, short enough for a user who waits.
static constexpr int kDefaultPatienceS = 120;
static constexpr int kChecksPerSecond = 2;
static constexpr std::chrono::milliseconds kCheckInterval(1000 / kChecksPerSecond);

static std::atomic<bool> is_left_alone;

[[noreturn]] static void fail(const std::string &predicate, OMX_ERRORTYPE error)
{
    char code[16] = "";
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(error));
    throw failure(exit_code::component, "the recorder component " + predicate + " (" + code + ")");
}

static void check(OMX_ERRORTYPE error, const std::string &predicate)
{
    if (error != OMX_ErrorNone) {
        fail(predicate, error);
    }
}

// thread: any, under the lock
static void note_error(il_session &self, OMX_ERRORTYPE error, bool is_refusal)
{
    if (self.error == OMX_ErrorNone) {
        self.error = error;
        self.is_refusal = is_refusal;
    }
}

// Takes the next buffers to send; the component has none.
// thread: any, under the lock
static std::vector<OMX_BUFFERHEADERTYPE *> take_waiting(il_session &self)
{
    if (self.error != OMX_ErrorNone) {
        return {};
    }
    for (port_buffers &buffers : self.ports) {
        if (!buffers.waiting.empty()) {
            self.out_count = buffers.waiting.size();
            return std::exchange(buffers.waiting, {});
        }
    }
    return {};
}

// thread: any, under the lock
static bool is_any_waiting(const il_session &self)
{
    return std::any_of(self.ports.begin(), self.ports.end(),
                       [](const port_buffers &buffers) { return !buffers.waiting.empty(); });
}

static void send(il_session &self, const std::vector<OMX_BUFFERHEADERTYPE *> &buffers)
{
    for (size_t i = 0; i < buffers.size(); i++) {
        const OMX_ERRORTYPE error = self.component->EmptyThisBuffer(self.component, buffers[i]);
        if (error != OMX_ErrorNone) {
            const std::lock_guard<std::mutex> guard(self.lock);
            self.out_count -= buffers.size() - i;
            note_error(self, error, true);
            self.changed.notify_all();
            return;
        }
    }
}

// thread: the component's, as the other two callbacks
static OMX_ERRORTYPE on_event(OMX_HANDLETYPE, OMX_PTR app_data, OMX_EVENTTYPE event, OMX_U32 data1,
                              OMX_U32 data2, OMX_PTR)
{
    il_session &self = *static_cast<il_session *>(app_data);
    {
        const std::lock_guard<std::mutex> guard(self.lock);
        if (event == OMX_EventCmdComplete && data1 == OMX_CommandStateSet) {
            self.state = static_cast<OMX_STATETYPE>(data2);
        } else if (event == OMX_EventError) {
            note_error(self, static_cast<OMX_ERRORTYPE>(data1), false);
        } else if (event == TDMBREC_EVENT_END_OF_RECORDING) {
            self.stop_reason = data2;
        }
    }
    self.changed.notify_all();
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE on_empty_buffer_done(OMX_HANDLETYPE, OMX_PTR app_data,
                                          OMX_BUFFERHEADERTYPE *buffer)
{
    il_session &self = *static_cast<il_session *>(app_data);
    std::unique_lock<std::mutex> guard(self.lock);
    self.ports[buffer->nInputPortIndex].free.push_back(buffer);
    if (--self.out_count > 0) {
        return OMX_ErrorNone;
    }
    const std::vector<OMX_BUFFERHEADERTYPE *> next = take_waiting(self);
    const bool is_room = !is_any_waiting(self);
    guard.unlock();
    if (is_room) {
        self.changed.notify_all();
    }
    send(self, next);
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE on_fill_buffer_done(OMX_HANDLETYPE, OMX_PTR, OMX_BUFFERHEADERTYPE *)
{
    return OMX_ErrorNone; // a sink fills nothing
}

// returns: how long to wait for an answer; a user with a slower disk may set it
static int patience_s(void)
{
    const char *const text = std::getenv("TDMBREC_PATIENCE");
    const int seconds = text != nullptr ? std::atoi(text) : 0;
    return seconds > 0 && seconds <= 1'000'000 ? seconds : kDefaultPatienceS;
}

[[noreturn]] static void fail_silent(il_session &self, const char *action)
{
    {
        const std::lock_guard<std::mutex> guard(self.lock);
        self.is_silent = true;
    }
    fail(std::string("does not ") + action, OMX_ErrorTimeout);
}

// Waits until the condition holds; it is evaluated under the lock. The checks are counted, not the
// time: a signal may have stopped the process meanwhile.
template <typename Condition>
static void await(il_session &self, const char *action, Condition condition)
{
    std::unique_lock<std::mutex> guard(self.lock);
    const auto is_over = [&] { return condition() || self.error != OMX_ErrorNone; };
    static const int check_count = patience_s() * kChecksPerSecond;
    bool reached = self.changed.wait_for(guard, kCheckInterval, is_over);
    for (int check = 1; !reached && check < check_count; check++) {
        if (self.on_wait) {
            guard.unlock();
            self.on_wait();
            guard.lock();
        }
        reached = self.changed.wait_for(guard, kCheckInterval, is_over);
    }
    if (self.error != OMX_ErrorNone) {
        fail(self.is_refusal ? "refuses a buffer" : "reported an error", self.error);
    }
    if (!reached) {
        guard.unlock();
        fail_silent(self, action);
    }
}

static void await_buffers(il_session &self)
{
    await(self, "return its buffers", [&] { return self.out_count == 0; });
}

static void await_state(il_session &self, OMX_STATETYPE state)
{
    await(self, "change its state", [&] { return self.state == state; });
}

static void command_state(il_session &self, OMX_STATETYPE state)
{
    check(self.component->SendCommand(self.component, OMX_CommandStateSet, state, nullptr),
          "refuses a change of state");
}

static OMX_PARAM_PORTDEFINITIONTYPE define_port(il_session &self, uint32_t port)
{
    OMX_PARAM_PORTDEFINITIONTYPE definition = {};
    definition.nSize = sizeof definition;
    definition.nVersion.nVersion = OMX_VERSION_1_1_2;
    definition.nPortIndex = port;
    check(self.component->GetParameter(self.component, OMX_IndexParamPortDefinition, &definition),
          "does not describe its ports");
    definition.nBufferCountActual = std::max(definition.nBufferCountMin, kBufferCounts[port]);
    check(self.component->SetParameter(self.component, OMX_IndexParamPortDefinition, &definition),
          "refuses the number of buffers");
    return definition;
}

static void allocate_buffers(il_session &self)
{
    std::array<OMX_PARAM_PORTDEFINITIONTYPE, TDMBREC_PORT_COUNT> definitions;
    for (uint32_t port = 0; port < TDMBREC_PORT_COUNT; port++) {
        definitions[port] = define_port(self, port);
    }
    command_state(self, OMX_StateIdle);
    for (uint32_t port = 0; port < TDMBREC_PORT_COUNT; port++) {
        for (uint32_t i = 0; i < definitions[port].nBufferCountActual; i++) {
            OMX_BUFFERHEADERTYPE *buffer = nullptr;
            check(self.component->AllocateBuffer(self.component, &buffer, port, nullptr,
                                                 definitions[port].nBufferSize),
                  "allocates no buffers");
            self.ports[port].all.push_back(buffer);
            self.ports[port].free.push_back(buffer);
        }
    }
    await_state(self, OMX_StateIdle);
}

il_session_ptr il_session_open(void)
{
    il_session_ptr self(new il_session);
    self->callbacks = {on_event, on_empty_buffer_done, on_fill_buffer_done};
    char name[] = TDMBREC_COMPONENT_NAME;
    OMX_HANDLETYPE handle = nullptr;
    const OMX_ERRORTYPE error = OMX_GetHandle(&handle, name, self.get(), &self->callbacks);
    if (error == OMX_ErrorComponentNotFound) {
        throw failure(exit_code::component,
                      std::string("the recorder component cannot be loaded: ") +
                          omx_core_load_error() + " (TDMBREC_COMPONENT_PATH may name its library)");
    }
    check(error, "cannot be created");
    self->component = static_cast<OMX_COMPONENTTYPE *>(handle);
    allocate_buffers(*self);
    command_state(*self, OMX_StateExecuting);
    await_state(*self, OMX_StateExecuting);
    return self;
}

static void set_vendor(il_session &self, OMX_INDEXTYPE index, void *record, const char *predicate)
{
    check(self.component->SetParameter(self.component, index, record), predicate);
}

void il_session_start(il_session &self, const std::string &path, unsigned sample_rate)
{
    std::array<char, TDMBREC_PATH_BYTES> path_record = {};
    if (path.size() >= path_record.size()) {
        throw failure(exit_code::storage, path + ": too long for the recorder component");
    }
    std::copy(path.begin(), path.end(), path_record.begin());
    set_vendor(self, TDMBREC_INDEX_OUTPUT_PATH, path_record.data(), "refuses the output path");

    OMX_AUDIO_PARAM_PCMMODETYPE pcm = {};
    pcm.nSize = sizeof pcm;
    pcm.nVersion.nVersion = OMX_VERSION_1_1_2;
    pcm.nPortIndex = TDMBREC_PORT_AUDIO;
    pcm.nChannels = 2;
    pcm.eNumData = OMX_NumericalDataSigned;
    pcm.eEndian = OMX_EndianLittle;
    pcm.bInterleaved = OMX_TRUE;
    pcm.nBitPerSample = 16;
    pcm.nSamplingRate = sample_rate;
    pcm.ePCMMode = OMX_AUDIO_PCMModeLinear;
    pcm.eChannelMapping[0] = OMX_AUDIO_ChannelLF;
    pcm.eChannelMapping[1] = OMX_AUDIO_ChannelRF;
    check(self.component->SetParameter(self.component, OMX_IndexParamAudioPcm, &pcm),
          "refuses the sampling rate");

    {
        const std::lock_guard<std::mutex> guard(self.lock);
        self.stop_reason.reset();
    }
    if (self.sound != nullptr) {
        coded_sound_clear(*self.sound);
    }
    uint32_t any_record = 0;
    set_vendor(self, TDMBREC_INDEX_START, &any_record, "refuses to start");
    if (self.sound != nullptr) {
        coded_sound_start(*self.sound, self.component);
    }
}

static void return_buffer(il_session &self, uint32_t port, OMX_BUFFERHEADERTYPE *buffer)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    self.ports[port].free.push_back(buffer);
}

// Passes the coded sound to the component after the pictures of its run, and waits until it is
// written: the order of the frames is then the same each time.
static void flush_sound(il_session &self)
{
    if (self.sound == nullptr || self.sound->waiting.empty()) {
        return;
    }
    await_buffers(self);
    static const int most_ms = patience_s() * 1000;
    for (int waited_ms = 1; !coded_sound_pass(*self.sound) && !il_session_stop_reason(self);
         waited_ms++) {
        if (waited_ms == most_ms) {
            fail_silent(self, "take its sound");
        }
        if (waited_ms % kCheckInterval.count() == 0 && self.on_wait) {
            self.on_wait();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    self.sound->waiting.clear();
}

static void flush_buffers(il_session &self)
{
    await(self, "take its buffers", [&] { return !is_any_waiting(self); });
    std::unique_lock<std::mutex> guard(self.lock);
    for (port_buffers &buffers : self.ports) {
        buffers.waiting.swap(buffers.filled);
    }
    if (self.out_count == 0) {
        const std::vector<OMX_BUFFERHEADERTYPE *> next = take_waiting(self);
        guard.unlock();
        send(self, next);
    }
}

void il_session_flush(il_session &self)
{
    flush_buffers(self);
    flush_sound(self);
}

static OMX_BUFFERHEADERTYPE *take_buffer(il_session &self, uint32_t port)
{
    await(self, "return its buffers", [&] { return !self.ports[port].free.empty(); });
    const std::lock_guard<std::mutex> guard(self.lock);
    OMX_BUFFERHEADERTYPE *const buffer = self.ports[port].free.back();
    self.ports[port].free.pop_back();
    return buffer;
}

void il_session_send(il_session &self, uint32_t port, std::span<const uint8_t> bytes,
                     int64_t time_us, uint32_t flags)
{
    port_buffers &buffers = self.ports[port];
    OMX_BUFFERHEADERTYPE *const buffer = take_buffer(self, port);
    if (bytes.size() > buffer->nAllocLen) {
        return_buffer(self, port, buffer);
        throw failure(exit_code::unsupported,
                      "a picture of " + std::to_string(bytes.size()) +
                          " bytes is larger than the recorder's buffers of " +
                          std::to_string(buffer->nAllocLen));
    }
    std::copy(bytes.begin(), bytes.end(), buffer->pBuffer);
    buffer->nFilledLen = static_cast<OMX_U32>(bytes.size());
    buffer->nOffset = 0;
    buffer->nTimeStamp = time_us;
    buffer->nFlags = flags;
    buffers.filled.push_back(buffer);
    if (buffers.filled.size() >= buffers.all.size() / 2) {
        il_session_flush(self);
    }
}

void il_session_send_coded(il_session &self, std::span<const uint8_t> block, int64_t time_ms)
{
    std::array<int16_t, 2 * AACENC_FRAME_SAMPLES> samples;
    std::memcpy(samples.data(), block.data(), sizeof samples);
    coded_sound_add(*self.sound, samples, time_ms);
    if (self.sound->waiting.size() >= self.ports[TDMBREC_PORT_AUDIO].all.size() / 2) {
        il_session_flush(self);
    }
}

std::optional<uint32_t> il_session_stop_reason(il_session &self)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    return self.stop_reason;
}

uint32_t il_session_stop(il_session &self)
{
    il_session_flush(self);
    await_buffers(self);
    uint32_t any_record = 0;
    set_vendor(self, TDMBREC_INDEX_STOP, &any_record, "refuses to stop");
    await(self, "finish the file", [&] { return self.stop_reason.has_value(); });
    if (self.sound != nullptr) {
        coded_sound_end(*self.sound);
    }
    return *il_session_stop_reason(self);
}

static void free_buffers(il_session &self)
{
    for (uint32_t port = 0; port < TDMBREC_PORT_COUNT; port++) {
        for (OMX_BUFFERHEADERTYPE *const buffer : self.ports[port].all) {
            (void)self.component->FreeBuffer(self.component, port, buffer);
        }
        self.ports[port].all.clear();
    }
}

static void leave_states(il_session &self)
{
    command_state(self, OMX_StateIdle);
    await_state(self, OMX_StateIdle);
    command_state(self, OMX_StateLoaded);
    free_buffers(self);
    await_state(self, OMX_StateLoaded);
}

void il_session_close(il_session_ptr self)
{
    leave_states(*self);
    check(OMX_FreeHandle(std::exchange(self->component, nullptr)), "cannot be freed");
}

// Discards the waiting run.
// returns: whether the component is in Executing, without an error, and has no buffers
static bool can_leave_states(il_session &self)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    for (port_buffers &buffers : self.ports) {
        buffers.waiting.clear();
    }
    if (self.is_refusal) { // already reported
        self.error = OMX_ErrorNone;
    }
    return self.state == OMX_StateExecuting && self.error == OMX_ErrorNone && self.out_count == 0;
}

static bool is_silent(il_session &self)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    return self.is_silent;
}

// Ends the recording, whose writer thread uses the component's handle.
static void end_sound(il_session &self)
{
    if (self.sound == nullptr || !self.sound->is_written || is_silent(self)) {
        return;
    }
    uint32_t any_record = 0;
    (void)self.component->SetParameter(self.component, TDMBREC_INDEX_STOP, &any_record);
    coded_sound_end(*self.sound);
}

void il_session_deleter::operator()(il_session *session) const
{
    if (session->component != nullptr) {
        try {
            if (!is_silent(*session) && can_leave_states(*session)) {
                leave_states(*session);
            }
        } catch (const failure &) { // an earlier failure is being reported
        }
        end_sound(*session);
        if (is_silent(*session)) { // its threads may still use the session
            is_left_alone = true;
            return;
        }
        (void)OMX_FreeHandle(session->component);
    }
    delete session;
}

bool il_session_left_alone(void)
{
    return is_left_alone;
}

#include "client/il_session.h"

#include "client/failure.h"
#include "client/omx_core.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

// A run is half of them, filled while the component has the other half; about as many PCM buffers
// as pictures and a half make up a programme.
static constexpr std::array<uint32_t, TDMBREC_PORT_COUNT> kBufferCounts = {32, 64};

// Long enough for a slow disk, short enough to tell a person that nothing moves any more.
static constexpr int kDefaultPatienceS = 120;
static constexpr int kLooksPerSecond = 2;
static constexpr std::chrono::milliseconds kLook(1000 / kLooksPerSecond);

static std::atomic<bool> left_alone;

[[noreturn]] static void fail(const std::string &what, OMX_ERRORTYPE error)
{
    char code[16] = "";
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(error));
    throw failure(exit_code::component, "the recorder component " + what + " (" + code + ")");
}

static void check(OMX_ERRORTYPE error, const std::string &what)
{
    if (error != OMX_ErrorNone) {
        fail(what, error);
    }
}

// Under the lock.
static void note_error(il_session &self, OMX_ERRORTYPE error, bool refused)
{
    if (self.error == OMX_ErrorNone) {
        self.error = error;
        self.refused = refused;
    }
}

// Takes what is to be sent next, now that the component has nothing. Under the lock.
static std::vector<OMX_BUFFERHEADERTYPE *> take_waiting(il_session &self)
{
    if (self.error != OMX_ErrorNone) {
        return {};
    }
    for (port_buffers &buffers : self.ports) {
        if (!buffers.waiting.empty()) {
            self.out = buffers.waiting.size();
            return std::exchange(buffers.waiting, {});
        }
    }
    return {};
}

// Under the lock.
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
            self.out -= buffers.size() - i;
            note_error(self, error, true);
            self.changed.notify_all();
            return;
        }
    }
}

// The callbacks, on the component's threads.

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
        } else if (static_cast<uint32_t>(event) == TDMBREC_EVENT_END_OF_RECORDING) {
            self.stopped = data2;
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
    if (--self.out > 0) {
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

// The user may know of a slower disk.
static int patience_s(void)
{
    const char *const text = std::getenv("TDMBREC_PATIENCE");
    const int seconds = text != nullptr ? std::atoi(text) : 0;
    return seconds > 0 && seconds <= 1'000'000 ? seconds : kDefaultPatienceS;
}

// Waits until the condition, which is looked at under the lock, holds. The looks are counted, not
// the time: the command and the component may have been stopped together.
template <typename Condition>
static void await(il_session &self, const char *what, Condition condition)
{
    std::unique_lock<std::mutex> guard(self.lock);
    const auto is_over = [&] { return condition() || self.error != OMX_ErrorNone; };
    static const int looks = patience_s() * kLooksPerSecond;
    bool reached = self.changed.wait_for(guard, kLook, is_over);
    for (int look = 1; !reached && look < looks; look++) {
        if (self.on_wait) {
            guard.unlock();
            self.on_wait();
            guard.lock();
        }
        reached = self.changed.wait_for(guard, kLook, is_over);
    }
    if (self.error != OMX_ErrorNone) {
        fail(self.refused ? "refuses a buffer" : "reported an error", self.error);
    }
    if (!reached) {
        self.silent = true;
        fail(std::string("does not ") + what, OMX_ErrorTimeout);
    }
}

static void await_buffers(il_session &self)
{
    await(self, "give its buffers back", [&] { return self.out == 0; });
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
    check(error, "cannot be made");
    self->component = static_cast<OMX_COMPONENTTYPE *>(handle);
    allocate_buffers(*self);
    command_state(*self, OMX_StateExecuting);
    await_state(*self, OMX_StateExecuting);
    return self;
}

static void set_vendor(il_session &self, uint32_t index, void *record, const char *what)
{
    check(self.component->SetParameter(self.component, static_cast<OMX_INDEXTYPE>(index), record),
          what);
}

void il_session_start(il_session &self, const std::string &path, unsigned rate)
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
    pcm.nSamplingRate = rate;
    pcm.ePCMMode = OMX_AUDIO_PCMModeLinear;
    pcm.eChannelMapping[0] = OMX_AUDIO_ChannelLF;
    pcm.eChannelMapping[1] = OMX_AUDIO_ChannelRF;
    check(self.component->SetParameter(self.component, OMX_IndexParamAudioPcm, &pcm),
          "refuses the sampling rate");

    uint32_t start = 1; // any record will do
    set_vendor(self, TDMBREC_INDEX_START, &start, "refuses to start");
}

static void give_back(il_session &self, uint32_t port, OMX_BUFFERHEADERTYPE *buffer)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    self.ports[port].free.push_back(buffer);
}

void il_session_flush(il_session &self)
{
    await(self, "take its buffers", [&] { return !is_any_waiting(self); });
    std::unique_lock<std::mutex> guard(self.lock);
    for (port_buffers &buffers : self.ports) {
        buffers.waiting.swap(buffers.filled);
    }
    if (self.out == 0) {
        const std::vector<OMX_BUFFERHEADERTYPE *> next = take_waiting(self);
        guard.unlock();
        send(self, next);
    }
}

static OMX_BUFFERHEADERTYPE *take_buffer(il_session &self, uint32_t port)
{
    await(self, "give its buffers back", [&] { return !self.ports[port].free.empty(); });
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
        give_back(self, port, buffer);
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

std::optional<uint32_t> il_session_stopped(il_session &self)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    return self.stopped;
}

uint32_t il_session_stop(il_session &self)
{
    il_session_flush(self);
    await_buffers(self);
    uint32_t stop = 1; // any record will do
    set_vendor(self, TDMBREC_INDEX_STOP, &stop, "refuses to stop");
    await(self, "finish the file", [&] { return self.stopped.has_value(); });
    return *il_session_stopped(self);
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

// Whether all is quiet; if not, nothing more is sent.
static bool can_leave_states(il_session &self)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    for (port_buffers &buffers : self.ports) {
        buffers.waiting.clear();
    }
    if (self.refused) { // that has been told
        self.error = OMX_ErrorNone;
    }
    return self.state == OMX_StateExecuting && self.error == OMX_ErrorNone && self.out == 0;
}

static bool is_silent(il_session &self)
{
    const std::lock_guard<std::mutex> guard(self.lock);
    return self.silent;
}

void il_session_deleter::operator()(il_session *session) const
{
    if (session->component != nullptr) {
        try {
            if (!is_silent(*session) && can_leave_states(*session)) {
                leave_states(*session);
            }
        } catch (const failure &) { // another failure is being reported; the handle takes the rest
        }
        if (is_silent(*session)) { // and may still use the record
            left_alone = true;
            return;
        }
        (void)OMX_FreeHandle(session->component);
    }
    delete session;
}

bool il_session_left_alone(void)
{
    return left_alone;
}

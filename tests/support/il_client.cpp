#include "tests/support/il_client.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>

IlClient::IlClient(const Make &make, Release release)
    : callbacks_{event_handler, empty_buffer_done, nullptr}, release_(std::move(release))
{
    handle_ = make(&callbacks_, this);
    if (handle_ == nullptr) {
        throw std::runtime_error("no component");
    }
}

template <typename Condition>
bool IlClient::wait(Condition is_over, int timeout_ms)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), is_over);
}

IlClient::~IlClient()
{
    destroy();
}

void IlClient::destroy()
{
    if (handle_ != nullptr) {
        release_(handle_);
        handle_ = nullptr;
    }
}

OMX_ERRORTYPE IlClient::event_handler(OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE event,
                                      OMX_U32 data1, OMX_U32 data2, OMX_PTR data)
{
    IlClient *const client = static_cast<IlClient *>(self);
    const IlEvent entry{event, data1, data2, data};
    if (client->on_event) {
        client->on_event(entry);
    }
    const std::lock_guard lock(client->mutex_);
    client->events_.push_back(entry);
    client->changed_.notify_all();
    return OMX_ErrorNone;
}

OMX_ERRORTYPE IlClient::empty_buffer_done(OMX_HANDLETYPE, OMX_PTR self,
                                          OMX_BUFFERHEADERTYPE *header)
{
    IlClient *const client = static_cast<IlClient *>(self);
    if (client->on_buffer_back) {
        client->on_buffer_back(header);
    }
    const std::lock_guard lock(client->mutex_);
    std::erase(client->out_, header);
    client->changed_.notify_all();
    return OMX_ErrorNone;
}

void IlClient::change_state(OMX_STATETYPE state, const std::function<void()> &meanwhile)
{
    const IlEvent expected{OMX_EventCmdComplete, OMX_CommandStateSet, static_cast<OMX_U32>(state),
                           nullptr};
    const ptrdiff_t from = static_cast<ptrdiff_t>(count(OMX_EventCmdComplete));
    ASSERT_EQ(OMX_SendCommand(handle_, OMX_CommandStateSet, state, nullptr), OMX_ErrorNone);
    meanwhile();
    ASSERT_TRUE(wait([&] {
        const std::vector<IlEvent> done = events(OMX_EventCmdComplete);
        return std::find(done.begin() + from, done.end(), expected) != done.end();
    })) << "state "
        << state;
}

void IlClient::set_state(OMX_STATETYPE state)
{
    change_state(state, [] {});
}

void IlClient::to_executing()
{
    change_state(OMX_StateIdle, [&] {
        size_t buffers = 0;
        for (OMX_U32 port = 0; port < TDMBREC_PORT_COUNT; port++) {
            OMX_PARAM_PORTDEFINITIONTYPE definition = {};
            definition.nSize = sizeof(definition);
            definition.nVersion.nVersion = OMX_VERSION_1_1_2;
            definition.nPortIndex = port;
            ASSERT_EQ(OMX_GetParameter(handle_, OMX_IndexParamPortDefinition, &definition),
                      OMX_ErrorNone);
            buffers_[port].resize(definition.nBufferCountActual);
            buffers += definition.nBufferCountActual;
            for (OMX_BUFFERHEADERTYPE *&header : buffers_[port]) {
                ASSERT_EQ(
                    OMX_AllocateBuffer(handle_, &header, port, nullptr, definition.nBufferSize),
                    OMX_ErrorNone);
            }
        }
        const std::lock_guard lock(mutex_);
        out_.reserve(buffers); // so that sending allocates nothing
    });
    set_state(OMX_StateExecuting);
}

void IlClient::to_loaded()
{
    OMX_STATETYPE state = OMX_StateInvalid;
    ASSERT_EQ(OMX_GetState(handle_, &state), OMX_ErrorNone);
    if (state != OMX_StateIdle) {
        set_state(OMX_StateIdle);
    }
    change_state(OMX_StateLoaded, [&] {
        for (OMX_U32 port = 0; port < TDMBREC_PORT_COUNT; port++) {
            for (OMX_BUFFERHEADERTYPE *const header : buffers_[port]) {
                EXPECT_EQ(OMX_FreeBuffer(handle_, port, header), OMX_ErrorNone);
            }
            buffers_[port].clear();
        }
    });
}

OMX_BUFFERHEADERTYPE *IlClient::take_free_buffer(OMX_U32 port)
{
    OMX_BUFFERHEADERTYPE *header = nullptr;
    EXPECT_TRUE(wait([&] {
        for (OMX_BUFFERHEADERTYPE *const candidate : buffers_[port]) {
            if (std::find(out_.begin(), out_.end(), candidate) == out_.end()) {
                header = candidate;
                out_.push_back(header);
                return true;
            }
        }
        return false;
    })) << "no buffer of port "
        << port << " is returned";
    return header;
}

OMX_BUFFERHEADERTYPE *IlClient::post(OMX_U32 port, std::span<const uint8_t> data, int64_t time_us)
{
    OMX_BUFFERHEADERTYPE *const header = take_free_buffer(port);
    if (header == nullptr) {
        return nullptr;
    }
    if (!data.empty()) {
        memcpy(header->pBuffer, data.data(), data.size());
    }
    header->nOffset = 0;
    header->nFilledLen = static_cast<OMX_U32>(data.size());
    header->nTimeStamp = time_us;
    header->nFlags = 0;
    EXPECT_EQ(OMX_EmptyThisBuffer(handle_, header), OMX_ErrorNone);
    return header;
}

bool IlClient::wait_until_back(const OMX_BUFFERHEADERTYPE *header, int timeout_ms)
{
    return wait([&] { return std::find(out_.begin(), out_.end(), header) == out_.end(); },
                timeout_ms);
}

void IlClient::send(OMX_U32 port, std::span<const uint8_t> data, int64_t time_us)
{
    const OMX_BUFFERHEADERTYPE *const header = post(port, data, time_us);
    ASSERT_NE(header, nullptr);
    ASSERT_TRUE(wait_until_back(header)) << "port " << port << " at " << time_us << " us";
}

OMX_ERRORTYPE IlClient::set_path(const std::string &path)
{
    char record[TDMBREC_PATH_BYTES] = {};
    path.copy(record, sizeof(record));
    return OMX_SetParameter(handle_, TDMBREC_INDEX_OUTPUT_PATH, record);
}

OMX_ERRORTYPE IlClient::start()
{
    uint32_t any = 0;
    return OMX_SetParameter(handle_, TDMBREC_INDEX_START, &any);
}

OMX_ERRORTYPE IlClient::stop()
{
    uint32_t any = 0;
    return OMX_SetParameter(handle_, TDMBREC_INDEX_STOP, &any);
}

void IlClient::start_recording(const std::string &path)
{
    to_executing();
    EXPECT_EQ(set_path(path), OMX_ErrorNone);
    EXPECT_EQ(start(), OMX_ErrorNone);
}

std::optional<uint32_t> IlClient::wait_for_end(int timeout_ms)
{
    std::vector<IlEvent> ends;
    if (!wait([&] { return (ends = events(TDMBREC_EVENT_END_OF_RECORDING)).size() > ends_seen_; },
              timeout_ms)) {
        return std::nullopt;
    }
    return ends[ends_seen_++].data2;
}

std::vector<IlEvent> IlClient::events()
{
    const std::lock_guard lock(mutex_);
    return events_;
}

std::vector<IlEvent> IlClient::events(OMX_EVENTTYPE kind)
{
    const std::lock_guard lock(mutex_);
    std::vector<IlEvent> found;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(found),
                 [&](const IlEvent &event) { return event.event == kind; });
    return found;
}

size_t IlClient::count(OMX_EVENTTYPE kind)
{
    return events(kind).size();
}

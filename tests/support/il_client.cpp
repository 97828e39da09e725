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

bool IlClient::wait_for_command(OMX_COMMANDTYPE command, OMX_U32 data, size_t from)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), [&] {
        return std::any_of(
            events_.begin() + static_cast<ptrdiff_t>(from), events_.end(), [&](const IlEvent &e) {
                return e.event == OMX_EventCmdComplete && e.data1 == command && e.data2 == data;
            });
    });
}

void IlClient::set_state(OMX_STATETYPE state)
{
    const size_t from = events().size();
    ASSERT_EQ(OMX_SendCommand(handle_, OMX_CommandStateSet, state, nullptr), OMX_ErrorNone);
    ASSERT_TRUE(wait_for_command(OMX_CommandStateSet, state, from)) << "state " << state;
}

void IlClient::allocate_buffers(uint32_t buffer_bytes)
{
    for (OMX_U32 port = 0; port < 2; port++) {
        OMX_PARAM_PORTDEFINITIONTYPE definition = {};
        definition.nSize = sizeof(definition);
        definition.nVersion.nVersion = OMX_VERSION_1_1_2;
        definition.nPortIndex = port;
        ASSERT_EQ(OMX_GetParameter(handle_, OMX_IndexParamPortDefinition, &definition),
                  OMX_ErrorNone);
        for (OMX_U32 i = 0; i < definition.nBufferCountActual; i++) {
            OMX_BUFFERHEADERTYPE *header = nullptr;
            ASSERT_EQ(OMX_AllocateBuffer(handle_, &header, port, nullptr,
                                         std::max(buffer_bytes, definition.nBufferSize)),
                      OMX_ErrorNone);
            buffers_[port].push_back(header);
        }
    }
}

void IlClient::to_executing(uint32_t buffer_bytes)
{
    const size_t from = events().size();
    ASSERT_EQ(OMX_SendCommand(handle_, OMX_CommandStateSet, OMX_StateIdle, nullptr), OMX_ErrorNone);
    allocate_buffers(buffer_bytes);
    ASSERT_TRUE(wait_for_command(OMX_CommandStateSet, OMX_StateIdle, from));
    set_state(OMX_StateExecuting);
}

void IlClient::free_buffers()
{
    for (OMX_U32 port = 0; port < 2; port++) {
        for (OMX_BUFFERHEADERTYPE *const header : buffers_[port]) {
            EXPECT_EQ(OMX_FreeBuffer(handle_, port, header), OMX_ErrorNone);
        }
        buffers_[port].clear();
    }
}

void IlClient::to_loaded()
{
    OMX_STATETYPE state = OMX_StateInvalid;
    ASSERT_EQ(OMX_GetState(handle_, &state), OMX_ErrorNone);
    if (state != OMX_StateIdle) {
        set_state(OMX_StateIdle);
    }
    const size_t from = events().size();
    ASSERT_EQ(OMX_SendCommand(handle_, OMX_CommandStateSet, OMX_StateLoaded, nullptr),
              OMX_ErrorNone);
    free_buffers();
    ASSERT_TRUE(wait_for_command(OMX_CommandStateSet, OMX_StateLoaded, from));
}

OMX_BUFFERHEADERTYPE *IlClient::post(OMX_U32 port, std::span<const uint8_t> data, int64_t ts_us,
                                     OMX_U32 flags)
{
    OMX_BUFFERHEADERTYPE *header = nullptr;
    {
        std::unique_lock lock(mutex_);
        const bool is_free = changed_.wait_for(lock, std::chrono::seconds(30), [&] {
            const auto found = std::find_if(
                buffers_[port].begin(), buffers_[port].end(), [&](const OMX_BUFFERHEADERTYPE *h) {
                    return std::find(out_.begin(), out_.end(), h) == out_.end();
                });
            header = found == buffers_[port].end() ? nullptr : *found;
            return header != nullptr;
        });
        if (!is_free) {
            ADD_FAILURE() << "no buffer of port " << port << " comes back";
            return nullptr;
        }
        out_.push_back(header);
    }
    if (!data.empty()) {
        memcpy(header->pBuffer, data.data(), data.size());
    }
    header->nOffset = 0;
    header->nFilledLen = static_cast<OMX_U32>(data.size());
    header->nTimeStamp = ts_us;
    header->nFlags = flags;
    if (before_empty) {
        before_empty(header);
    }
    EXPECT_EQ(OMX_EmptyThisBuffer(handle_, header), OMX_ErrorNone);
    return header;
}

bool IlClient::wait_until_back(const OMX_BUFFERHEADERTYPE *header, int timeout_ms)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        return std::find(out_.begin(), out_.end(), header) == out_.end();
    });
}

void IlClient::send(OMX_U32 port, std::span<const uint8_t> data, int64_t ts_us, OMX_U32 flags)
{
    const OMX_BUFFERHEADERTYPE *const header = post(port, data, ts_us, flags);
    ASSERT_NE(header, nullptr);
    ASSERT_TRUE(wait_until_back(header)) << "port " << port << " at " << ts_us << " us";
}

OMX_ERRORTYPE IlClient::set_path(const std::string &path)
{
    char record[128] = {};
    path.copy(record, sizeof(record));
    return OMX_SetParameter(handle_, INDEX_OUTPUT_PATH, record);
}

OMX_ERRORTYPE IlClient::start()
{
    uint32_t any = 0;
    return OMX_SetParameter(handle_, INDEX_START, &any);
}

OMX_ERRORTYPE IlClient::stop()
{
    uint32_t any = 0;
    return OMX_SetParameter(handle_, INDEX_STOP, &any);
}

std::optional<uint32_t> IlClient::wait_for_end(int timeout_ms)
{
    std::unique_lock lock(mutex_);
    std::optional<uint32_t> reason;
    changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        size_t ends = 0;
        for (const IlEvent &event : events_) {
            if (event.event == EVENT_END_OF_RECORDING && ends++ == ends_seen_) {
                reason = event.data2;
                return true;
            }
        }
        return false;
    });
    if (reason) {
        ends_seen_++;
    }
    return reason;
}

size_t IlClient::count(OMX_EVENTTYPE event)
{
    const std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(events_.begin(), events_.end(),
                                             [&](const IlEvent &e) { return e.event == event; }));
}

std::vector<IlEvent> IlClient::events()
{
    const std::lock_guard lock(mutex_);
    return events_;
}

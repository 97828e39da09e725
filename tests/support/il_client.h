// A client of the recorder for tests: drives a component through its OpenMAX IL handle and keeps
// its events.
#ifndef TESTS_SUPPORT_IL_CLIENT_H
#define TESTS_SUPPORT_IL_CLIENT_H

#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

// Long enough for the busiest machine; only a component that hangs takes longer.
constexpr int kHangMs = 300000;

struct IlEvent {
    OMX_EVENTTYPE event;
    OMX_U32 data1;
    OMX_U32 data2;
    OMX_PTR data;
    bool operator==(const IlEvent &) const = default;
};

class IlClient {
  public:
    // in: make installs the callbacks and returns the handle; release frees it
    using Make = std::function<OMX_COMPONENTTYPE *(OMX_CALLBACKTYPE *callbacks, void *app_data)>;
    using Release = std::function<void(OMX_COMPONENTTYPE *)>;
    IlClient(const Make &make, Release release);
    ~IlClient();
    IlClient(const IlClient &) = delete;
    IlClient &operator=(const IlClient &) = delete;

    OMX_COMPONENTTYPE *handle() const
    {
        return handle_;
    }

    // Change the state and allocate or free its buffers; each waits for the component's answer.
    void to_executing();
    void set_state(OMX_STATETYPE state);
    void to_loaded();
    void destroy();

    // Sends one buffer to a port and waits until it is returned.
    void send(OMX_U32 port, std::span<const uint8_t> data, int64_t time_us);
    // Sends one buffer and does not wait.
    // returns: its header
    OMX_BUFFERHEADERTYPE *post(OMX_U32 port, std::span<const uint8_t> data, int64_t time_us);
    bool wait_until_back(const OMX_BUFFERHEADERTYPE *header, int timeout_ms = kHangMs);

    OMX_ERRORTYPE set_path(const std::string &path);
    OMX_ERRORTYPE start();
    OMX_ERRORTYPE stop();
    // Goes to Executing, sets the path and starts.
    void start_recording(const std::string &path);
    // Waits for the next end of a recording.
    // returns: its reason, or nothing after the timeout
    std::optional<uint32_t> wait_for_end(int timeout_ms = kHangMs);
    // returns: the events so far, all or those of one kind
    std::vector<IlEvent> events();
    std::vector<IlEvent> events(OMX_EVENTTYPE kind);
    size_t count(OMX_EVENTTYPE kind);

    // thread: the component's
    std::function<void(const IlEvent &)> on_event;
    std::function<void(OMX_BUFFERHEADERTYPE *)> on_buffer_back;

  private:
    static OMX_ERRORTYPE event_handler(OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE, OMX_U32,
                                       OMX_U32, OMX_PTR);
    static OMX_ERRORTYPE empty_buffer_done(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE *);
    void change_state(OMX_STATETYPE state, const std::function<void()> &meanwhile);
    OMX_BUFFERHEADERTYPE *take_free_buffer(OMX_U32 port);
    template <typename Condition>
    bool wait(Condition is_over, int timeout_ms = kHangMs);

    OMX_CALLBACKTYPE callbacks_;
    Release release_;
    OMX_COMPONENTTYPE *handle_ = nullptr;
    std::vector<OMX_BUFFERHEADERTYPE *> buffers_[TDMBREC_PORT_COUNT];
    std::recursive_mutex mutex_;
    std::condition_variable_any changed_;
    std::vector<IlEvent> events_;
    std::vector<const OMX_BUFFERHEADERTYPE *> out_; // with the component
    size_t ends_seen_ = 0;
};

#endif // TESTS_SUPPORT_IL_CLIENT_H

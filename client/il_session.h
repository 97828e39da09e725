// The OpenMAX IL client: takes the recorder's handle, changes its states, keeps a pool of buffers
// for each port, and starts and stops the recording.
#ifndef CLIENT_IL_SESSION_H
#define CLIENT_IL_SESSION_H

#include "client/coded_sound.h"
#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct port_buffers {
    std::vector<OMX_BUFFERHEADERTYPE *> all;
    std::vector<OMX_BUFFERHEADERTYPE *> filled;  // for the next run
    std::vector<OMX_BUFFERHEADERTYPE *> waiting; // a complete run, under the session's lock
    std::vector<OMX_BUFFERHEADERTYPE *> free;    // under the session's lock
};

// The component's threads record its answers here. When they have returned every buffer that was
// sent, they send the waiting run. No OpenMAX IL call is made under the lock.
struct il_session {
    OMX_COMPONENTTYPE *component = nullptr;
    OMX_CALLBACKTYPE callbacks = {};
    std::array<port_buffers, TDMBREC_PORT_COUNT> ports;
    std::mutex lock; // guards the waiting and free lists and the fields below, but not on_wait
    std::condition_variable changed;
    size_t out_count = 0;                  // buffers that the component has
    OMX_STATETYPE state = OMX_StateLoaded; // the last one reached
    OMX_ERRORTYPE error = OMX_ErrorNone;   // the first one
    bool is_refusal = false;               // the error refused a buffer; no more are sent
    std::optional<uint32_t> stop_reason;   // tdmbrec_stop_reason_t, when the recording has ended
    bool is_silent = false;                // an answer did not come in time
    std::function<void()> on_wait;         // called twice a second during a wait
    std::unique_ptr<coded_sound> sound;    // for coded sound; null when the component encodes it
};

// Frees the handle in any state of the session. A component that did not answer in time is left
// alone, since its threads may never return.
struct il_session_deleter {
    void operator()(il_session *session) const;
};
using il_session_ptr = std::unique_ptr<il_session, il_session_deleter>;

// returns: whether a component has been left alone; the process must then end without unloading it
bool il_session_left_alone(void);

// Takes the handle, allocates the buffers and changes the state to Executing. For use between
// OMX_Init and OMX_Deinit.
// throws: `failure`
il_session_ptr il_session_open(void);

// Starts a recording, after the end of the last one.
// throws: `failure`
// in: path of at most 127 characters; sample rate of the PCM in Hz
void il_session_start(il_session &self, const std::string &path, unsigned sample_rate);

// Fills one buffer, after waiting for a free one. Buffers are sent in runs, when the run before
// them has come back: first the pictures of a run, then its audio. The component thus receives a
// programme in the same order each time, and threads are woken seldom. One run may wait while the
// component has another.
// throws: `failure`, unsupported for more bytes than a buffer holds
void il_session_send(il_session &self, uint32_t port, std::span<const uint8_t> bytes,
                     int64_t time_us, uint32_t flags);

// Encodes one block of 1024 samples of both channels and sends it, in a run as above.
// in: time_ms: in the file, which has a picture already
// throws: `failure`
void il_session_send_coded(il_session &self, std::span<const uint8_t> block, int64_t time_ms);

// Sends the run so far, for a caller that is about to sleep.
// throws: `failure`
void il_session_flush(il_session &self);

// returns: the stop reason when the recording has ended
std::optional<uint32_t> il_session_stop_reason(il_session &self);

// Waits for all buffers, asks the component to stop unless it has, and waits for the end.
// throws: `failure`
// returns: the stop reason
uint32_t il_session_stop(il_session &self);

// Changes the state to Idle and Loaded, and frees buffers and handle.
// throws: `failure`
void il_session_close(il_session_ptr self);

#endif // CLIENT_IL_SESSION_H

// The OpenMAX IL client: takes the recorder's handle, walks it through its states, keeps a pool of
// buffers for either port, and starts and stops the recording.
#ifndef CLIENT_IL_SESSION_H
#define CLIENT_IL_SESSION_H

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
    std::vector<OMX_BUFFERHEADERTYPE *> waiting; // a run's, under the session's lock
    std::vector<OMX_BUFFERHEADERTYPE *> free;    // under the session's lock
};

// The component's threads note here what happened, and send what waits when they have given back
// all that was sent before. No call of OpenMAX IL is made under the lock.
struct il_session {
    OMX_COMPONENTTYPE *component = nullptr;
    OMX_CALLBACKTYPE callbacks = {};
    std::array<port_buffers, TDMBREC_PORT_COUNT> ports;
    std::mutex lock; // guards the free lists and what follows
    std::condition_variable changed;
    size_t out = 0;                        // buffers that the component has
    OMX_STATETYPE state = OMX_StateLoaded; // the last one reached
    OMX_ERRORTYPE error = OMX_ErrorNone;   // the first one
    bool refused = false;                  // it was a buffer's; nothing more is sent
    std::optional<uint32_t> stopped;       // tdmbrec_stop_reason_t
    bool silent = false;                   // it was waited for in vain
    std::function<void()> on_wait;         // called twice a second while the component takes long
};

// Ends what is still under way and frees the handle, in whatever state the session is; a component
// that was waited for in vain is left alone, since its threads may never come back.
struct il_session_deleter {
    void operator()(il_session *session) const;
};
using il_session_ptr = std::unique_ptr<il_session, il_session_deleter>;

// Whether such a component has been left alone. The process then has to end without unloading it.
bool il_session_left_alone(void);

// Takes the handle and brings it to Executing, its buffers allocated. Between OMX_Init and
// OMX_Deinit. throws `failure`.
il_session_ptr il_session_open(void);

// Starts a recording to the path, which has at most 127 characters. throws `failure`.
void il_session_start(il_session &self, const std::string &path, unsigned rate);

// Sends one buffer; waits until one is free. Buffers go to the component in runs, the pictures of a
// run before its sound and both when all before them has come back: it takes the programme in the
// same order each time, and few threads have to be woken. One run may wait while the component has
// another.
// throws `failure`, unsupported for more bytes than a buffer holds.
void il_session_send(il_session &self, uint32_t port, std::span<const uint8_t> bytes,
                     int64_t time_us, uint32_t flags);

// Sends the run so far, for a caller that is about to sleep. throws `failure`.
void il_session_flush(il_session &self);

// The reason when the recording has ended, by whatever cause.
std::optional<uint32_t> il_session_stopped(il_session &self);

// Waits for all buffers, asks for the end unless it came by itself, and waits for it.
// returns the stop reason. throws `failure`.
uint32_t il_session_stop(il_session &self);

// Back through Idle to Loaded; frees buffers and handle. throws `failure`.
void il_session_close(il_session_ptr self);

#endif // CLIENT_IL_SESSION_H

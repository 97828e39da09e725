// The bytes of an input that is read while it is made: of a pipe, a socket, a device, or what one
// of FFmpeg's protocols opens.
#ifndef CLIENT_INPUT_LIVE_IO_H
#define CLIENT_INPUT_LIVE_IO_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <span>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avio.h>
}

// Called at least every 200 ms while an input is read or waited for.
// in: how long nothing has arrived
// returns: true to end the input here; it may throw
using wait_hook = std::function<bool(double silent_s)>;

inline constexpr std::chrono::milliseconds kHookInterval(200);

struct live_io {
    std::string path;
    wait_hook on_wait;
    int descriptor = -1;
    AVIOContext *remote = nullptr; // opened by a protocol
    bool is_rtp = false;           // the protocol's packets begin with RTP headers
    std::vector<uint8_t> datagram; // what is left of the last one
    // The programme's other input, which is also read while this one is waited for: one writer may
    // fill both.
    live_io *companion = nullptr;
    std::deque<uint8_t> backlog;    // what was read in this way
    AVIOContext *context = nullptr; // for the demuxer

    int64_t received_bytes = 0;
    std::vector<uint8_t> head, tail;                  // the first and the last bytes received
    std::chrono::steady_clock::time_point read_begun; // the read that is under way
    std::chrono::steady_clock::time_point hook_called;
    bool stops = false;       // ends where the demuxer needs more data
    bool stopped = false;     // the demuxer has been refused more data
    std::exception_ptr fault; // of the hook

    live_io() = default;
    live_io(const live_io &) = delete;
    live_io &operator=(const live_io &) = delete;
    ~live_io();
};

// returns: whether the name is that of an input to be read in this way
bool live_io_is(const std::string &path);

// Opens the descriptor of a local input, without waiting for its writer.
// throws: `failure`
void live_io_open(live_io &io, const std::string &path, const wait_hook &on_wait);

// Connects to a remote input, and makes the context for the demuxer.
// throws: `failure`
void live_io_begin(live_io &io);

// in: a context that has begun
// returns: whether data are there to be read, or the end
bool live_io_has_input(const live_io &io);

// Fills the bytes from a position in what was received, if they are among the first or the last.
// returns: false when they are not
bool live_io_read_kept(const live_io &io, int64_t position, std::span<uint8_t> bytes);

#endif // CLIENT_INPUT_LIVE_IO_H

// An input that is read while it is made: a pipe, a socket, a device, or what one of FFmpeg's
// protocols opens. It is read once and in order, by one demuxer for both streams.
#ifndef CLIENT_INPUT_LIVE_SOURCE_H
#define CLIENT_INPUT_LIVE_SOURCE_H

#include "client/input/av_ptr.h"
#include "client/input/stream_clock.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

// Called at least every 200 ms while an input is read or waited for.
// in: how long nothing has arrived
// returns: true to end the input here; it may throw
using wait_hook = std::function<bool(double silent_s)>;

// The packets of one stream that were read on the way to those of the other one.
struct live_queue {
    struct entry {
        packet_ptr packet;
        int64_t step_us; // from the packet before it
    };
    AVStream *stream = nullptr; // null: not read
    std::deque<entry> packets;
    int64_t span_us = 0;
    std::optional<int64_t> last_us; // time stamp of the last packet
    int64_t position = -1;          // of the last packet in the stream
    packet_ptr doubted;             // after a stop: complete if another one follows
};

struct live_source {
    std::string path;
    wait_hook on_wait;
    int descriptor = -1;
    AVIOContext *remote = nullptr; // opened by a protocol
    bool is_rtp = false;           // the protocol's packets begin with RTP headers
    std::vector<uint8_t> datagram; // what is left of the last one
    // The programme's other source, which is also read while this one is waited for: one writer may
    // fill both.
    live_source *companion = nullptr;
    std::deque<uint8_t> backlog; // what was read in this way
    AVIOContext *io = nullptr;   // of the demuxer
    AVFormatContext *format = nullptr;
    live_queue video, audio;
    bool begun = false; // the programme has begun: see live_source_read()

    int64_t received_bytes = 0;
    std::vector<uint8_t> head, tail;                  // the first and the last bytes received
    std::chrono::steady_clock::time_point read_begun; // the read that is under way
    std::chrono::steady_clock::time_point hook_called;
    bool stops = false;   // ends where the demuxer needs more data
    bool stopped = false; // the demuxer has been refused more data
    bool ended = false;
    std::exception_ptr fault; // with which it ended

    live_source() = default;
    live_source(const live_source &) = delete;
    live_source &operator=(const live_source &) = delete;
    ~live_source();
};

// returns: whether the name is that of an input to be read in this way
bool live_source_is(const std::string &path);

// Opens the descriptor of a local input, without waiting for its writer.
// returns: the source
// throws: `failure`
std::shared_ptr<live_source> live_source_open(const std::string &path, const wait_hook &on_wait);

// Connects to a remote input, then waits for as much data as it takes to know the streams.
// in: pcm_rate: of bare 16-bit stereo PCM in Hz; 0 for other formats
// throws: `failure`
void live_source_begin(live_source &source, int pcm_rate);

// Reads and discards what arrives from local inputs that have begun, until the moment. Returns
// early when on_wait asks for the end.
// throws: `failure`
void live_sources_discard(std::span<live_source *const> sources,
                          std::chrono::system_clock::time_point moment, const wait_hook &on_wait);

// Reads the next packet of the video or the audio, and keeps those of the other stream that come
// first. A stream that stays away for seconds of the other one is late. Before the programme has
// begun, the video is waited for all the same, and the oldest audio is discarded.
// out: is_late: set when a later call may return a packet
// returns: the packet; null at the end, and with is_late
// throws: `failure` when the input breaks off
packet_ptr live_source_read(live_source &source, AVMediaType kind, bool &is_late);

// Ends the input after what was received.
void live_source_stop(live_source &source);

#endif // CLIENT_INPUT_LIVE_SOURCE_H

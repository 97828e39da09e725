// The packets of one stream, with time stamps on one steady line: where the broadcast's clock
// restarts, earlier or far ahead, the line continues.
//
// The streams of one input share its clock. A jump is closed with one offset for both when both
// have crossed it: the stream that ends later on the old clock then continues without a gap, and
// neither steps back. Until then the packets keep the times of the clock on which they were sent.
#ifndef CLIENT_INPUT_STREAM_CLOCK_H
#define CLIENT_INPUT_STREAM_CLOCK_H

#include "client/input/av_ptr.h"
#include "client/input/loss.h"

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <optional>
#include <vector>

inline constexpr int64_t kSecondUs = 1'000'000;
inline constexpr AVRational kMicroseconds = {1, 1'000'000}; // as a time base

// Streams that begin further apart than this do not share a clock.
inline constexpr int64_t kAlignmentMaxUs = 600 * kSecondUs;

// Where a stream is on its line.
struct stream_place {
    std::optional<int64_t> stamp; // of the last packet, in the time base, without its wraps
    int64_t last_us = 0;          // the last packet's begin and end on the line
    int64_t end_us = 0;
    int64_t position = 0; // of the last packet in the file, as far as it is known
};

struct stream_clock {
    // Returns null at the end, and, with is_late set, when it has no packet yet; throws.
    std::function<packet_ptr(void)> source;
    bool is_late = false; // the source may return a packet later
    AVRational time_base = kMicroseconds;
    int wrap_bits = 64;            // width of the time stamps
    int64_t step_us = 0;           // between two packets; 0: their duration
    stream_clock *other = nullptr; // the stream that shares the clock, or null
    bool may_wait = false;         // the reader can call again later
    bool spreads_gaps = false;     // see run_shift_us

    stream_place place;
    int64_t offset_us = 0;    // from time stamps to the line
    unsigned jumps = 0;       // closed by this stream, for both
    std::vector<loss> losses; // these jumps, on the line
    // A demuxer may split packets out of larger ones. Of such a run, only the first packet has a
    // time stamp and a position of its own; the others count on from it, whatever was lost between
    // them. They are moved by half of the gap after the run, so that none is off by more than that.
    int64_t run_shift_us = 0;
    bool waits = false; // the last call returned null although the stream has not ended
    std::deque<packet_ptr> ahead;
    size_t placed = 0; // packets of `ahead`, from its front, that are on the line
    bool ended = false;
    std::exception_ptr fault; // the failure that broke the stream off
};

// returns: the next packet, with time stamps on the line; null at the end, and, with `waits` set,
//          while the packet is late, or its place depends on packets of the other stream that are
//          still to be read
// throws: the failure that broke the stream off
packet_ptr stream_clock_read(stream_clock &clock);

// Lets two streams share one clock.
void stream_clock_join(stream_clock &one, stream_clock &other);

// Gives a stream and the one that it shares its clock with a clock each.
void stream_clock_part(stream_clock &clock);

#endif // CLIENT_INPUT_STREAM_CLOCK_H

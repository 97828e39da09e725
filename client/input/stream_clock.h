// The packets of one stream, their time stamps on one steady line: where the broadcast's clock
// restarts, back or far ahead, the line continues.
//
// The streams of one input share its clock. A jump is closed once for both, by one offset, when
// both have crossed it: so that the stream that has the later end on the old clock continues
// without a gap, and neither steps back. Until then a stream's packets stay on the clock on which
// they came.
#ifndef CLIENT_INPUT_STREAM_CLOCK_H
#define CLIENT_INPUT_STREAM_CLOCK_H

#include "client/input/av_ptr.h"

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <optional>

inline constexpr int64_t kSecondUs = 1'000'000;
inline constexpr AVRational kMicroseconds = {1, 1'000'000}; // as a time base

// Streams that begin further apart than this are not of one clock.
inline constexpr int64_t kAlignmentMaxUs = 600 * kSecondUs;

// Where a stream is on its line.
struct stream_place {
    std::optional<int64_t> stamp; // of the last packet, in the time base, without its wraps
    int64_t last_us = 0;          // the last packet's begin and end on the line
    int64_t end_us = 0;
    int64_t position = 0; // of the last packet in the file, as far as known
};

struct stream_clock {
    std::function<packet_ptr(void)> source; // null at the end; throws what breaks the stream off
    AVRational time_base = kMicroseconds;
    int wrap_bits = 64;            // width of the time stamps
    int64_t step_us = 0;           // between two packets; 0: their duration
    stream_clock *other = nullptr; // the stream that shares the clock
    bool may_wait = false;         // what is read can come later
    bool spreads_gaps = false;     // as below, at run_shift_us

    stream_place place;
    int64_t offset_us = 0; // from time stamps to the line
    unsigned jumps = 0;    // closed by this stream, for both
    // Packets may come in runs, of which only the first one has a time stamp of its own and a place
    // in the file; the others count on from there, whatever was lost between them. Half of the gap
    // after a run is put in front of them, so that none is off by more than the other half.
    int64_t run_shift_us = 0;
    bool waits = false; // the last call gave nothing, but the stream has not ended
    std::deque<packet_ptr> ahead;
    size_t placed = 0; // so many packets of `ahead`, from its front, are on the line
    bool ended = false;
    std::exception_ptr fault; // what broke the stream off
};

// returns the next packet, its time stamps on the line. Null at the end, and, with `waits` set,
// where the other stream has to be read on before the packet's place is clear.
// throws what broke the stream off.
packet_ptr stream_clock_read(stream_clock &clock);

// From now on the two streams share one clock, or have one each again.
void stream_clock_join(stream_clock &one, stream_clock &other);
void stream_clock_part(stream_clock &clock);

#endif // CLIENT_INPUT_STREAM_CLOCK_H

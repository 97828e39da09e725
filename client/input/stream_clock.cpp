#include "client/input/stream_clock.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavutil/mathematics.h>
}

// Time stamps that leave the line by more than this have jumped.
static constexpr int64_t kJumpBackUs = 100'000;
static constexpr int64_t kJumpAheadUs = 10'000'000;

// After a step back within this range, what a stream lost can hide all signs of it.
static constexpr int64_t kSmallStepBackUs = 3'000'000;

// On one clock, the streams of an input are this close to each other.
static constexpr int64_t kInterleaveUs = 10'000'000;

// A gap or overlap from here on may be the place of a jump that is too small to show as one.
static constexpr int64_t kBreakUs = 40'000;

// How far beyond one stream the other one is read.
static constexpr int64_t kLookAheadUs = 3'000'000;
static constexpr size_t kLookAheadPackets = 2'000;

static constexpr int64_t kStampMaxUs = int64_t{1} << 56;

// The longest run, and the longest gap after one that may have come about within it.
static constexpr size_t kRunPackets = 64;
static constexpr int64_t kRunGapMaxUs = 80'000;

static std::optional<int64_t> stamp_of(const AVPacket &packet)
{
    const int64_t stamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    return stamp == AV_NOPTS_VALUE ? std::nullopt : std::optional(stamp);
}

// The value that a wrapping time stamp has nearest to another one.
static int64_t unwrap(const stream_clock &clock, int64_t stamp, int64_t near)
{
    if (clock.wrap_bits < 1 || clock.wrap_bits > 62) {
        return stamp;
    }
    const uint64_t period = uint64_t{1} << clock.wrap_bits;
    const uint64_t ahead =
        (static_cast<uint64_t>(stamp) - static_cast<uint64_t>(near)) & (period - 1);
    return near + static_cast<int64_t>(ahead) -
           (ahead < period / 2 ? 0 : static_cast<int64_t>(period));
}

static int64_t microseconds(const stream_clock &clock, int64_t stamp)
{
    return av_rescale_q(stamp, clock.time_base, kMicroseconds);
}

// The packet's time stamp without the wraps.
static std::optional<int64_t> unwrap_next(const stream_clock &clock, const stream_place &place,
                                          const AVPacket &packet)
{
    if (!stamp_of(packet)) {
        return std::nullopt;
    }
    const int64_t stamp = *stamp_of(packet);
    if (place.stamp) {
        return unwrap(clock, stamp, *place.stamp);
    }
    const stream_clock *const other = clock.other;
    const bool is_comparable =
        other != nullptr && other->place.stamp && av_cmp_q(clock.time_base, other->time_base) == 0;
    return is_comparable ? unwrap(clock, stamp, *other->place.stamp) : stamp;
}

// Advances to a packet with that time stamp; without one, to the end of the last.
static void advance(const stream_clock &clock, stream_place &place, const AVPacket &packet,
                    std::optional<int64_t> stamp)
{
    place.last_us = stamp ? microseconds(clock, *stamp) + clock.offset_us : place.end_us;
    place.end_us =
        place.last_us + (clock.step_us > 0 ? clock.step_us : microseconds(clock, packet.duration));
    place.position = std::max(place.position, packet.pos);
    place.stamp = stamp ? stamp : place.stamp;
}

// Takes away what no arithmetic on times could hold.
static void drop_wild_stamps(const stream_clock &clock, AVPacket &packet)
{
    for (int64_t *const stamp : {&packet.pts, &packet.dts}) {
        const int64_t time_us = *stamp == AV_NOPTS_VALUE ? 0 : microseconds(clock, *stamp);
        if (time_us < -kStampMaxUs || time_us > kStampMaxUs) {
            *stamp = AV_NOPTS_VALUE;
        }
    }
    packet.duration = std::clamp<int64_t>(
        packet.duration, 0, av_rescale_q(kJumpAheadUs, kMicroseconds, clock.time_base));
}

static bool pull(stream_clock &clock)
{
    if (clock.ended) {
        return false;
    }
    try {
        packet_ptr packet = clock.source();
        clock.ended = packet == nullptr;
        if (packet != nullptr) {
            drop_wild_stamps(clock, *packet);
            clock.ahead.push_back(std::move(packet));
        }
    } catch (...) { // for its own reader, after the packets that came before it
        clock.fault = std::current_exception();
        clock.ended = true;
    }
    return !clock.ended;
}

// The gap between the run that begins with the next packet to be placed and the run after it.
static int64_t gap_after_run(stream_clock &clock)
{
    std::optional<int64_t> end; // in the time base
    for (size_t i = clock.placed; i < clock.placed + kRunPackets; i++) {
        if (i == clock.ahead.size() && !pull(clock)) {
            return 0;
        }
        const AVPacket &packet = *clock.ahead[i];
        const std::optional<int64_t> stamp = stamp_of(packet);
        if (!stamp) {
            return 0;
        }
        if (i > clock.placed && packet.pos >= 0) {
            const int64_t gap_us = microseconds(clock, unwrap(clock, *stamp, *end) - *end);
            return gap_us > kBreakUs && gap_us < kRunGapMaxUs ? gap_us : 0;
        }
        end = *stamp + packet.duration;
    }
    return 0;
}

// Puts the packet in front of those that are not on the line on it. in: its unwrapped time stamp.
static void place_packet(stream_clock &clock, std::optional<int64_t> stamp)
{
    AVPacket &packet = *clock.ahead[clock.placed];
    if (clock.spreads_gaps && packet.pos >= 0) {
        clock.run_shift_us = gap_after_run(clock) / 2;
    }
    clock.placed++;
    if (stamp) {
        const int64_t moved_us = clock.offset_us + (packet.pos < 0 ? clock.run_shift_us : 0);
        const int64_t moved =
            *stamp - *stamp_of(packet) + av_rescale_q(moved_us, kMicroseconds, clock.time_base);
        packet.pts += packet.pts != AV_NOPTS_VALUE ? moved : 0;
        packet.dts += packet.dts != AV_NOPTS_VALUE ? moved : 0;
    }
    advance(clock, clock.place, packet, stamp);
}

static bool has_jumped(const stream_clock &clock, const stream_place &place, int64_t time_us)
{
    if (!place.stamp) {
        return false;
    }
    const int64_t ahead_us =
        clock.other != nullptr && clock.other->place.stamp
            ? std::max(place.end_us, clock.other->place.last_us) // where one is, both may be
            : place.end_us;
    return time_us + kJumpBackUs <= place.last_us || time_us > ahead_us + kJumpAheadUs;
}

// Whether the stream is further ahead of the other one than it is worth looking.
static bool is_far_ahead(const stream_clock &clock, const stream_place &place, size_t packets)
{
    return packets >= kLookAheadPackets || place.last_us > clock.other->place.end_us + kLookAheadUs;
}

// The jump of one stream, for which the other is searched.
struct jump {
    int64_t stamp;        // of the first packet after it
    int64_t back_us;      // below 0: ahead
    int64_t position;     // where that packet is in the file
    int64_t old_position; // and the last one before it
};

enum class sight { crossing, continues, has_end, nothing_yet };

struct outlook {
    sight found;
    size_t index = 0;   // of the first packet on the new clock
    int64_t stamp = 0;  // its own
    int64_t end_us = 0; // of what comes before it
};

// A walk over packets that are not on the line yet.
struct search {
    stream_place place;
    outlook hidden = {
        sight::continues}; // a crossing that shows by nothing but a break or its place
    bool is_at_break = false;
};

// Notes where the stream may have crossed with a step that is no jump, because it had lost enough
// before: at the first gap or overlap after the jump's place in the file. After a small step back,
// even that is no condition.
static void note_hidden(search &search, const jump &jump, const outlook &here, int64_t away_us)
{
    const bool is_break = std::abs(away_us) > kBreakUs;
    const bool is_small = jump.back_us > 0 && jump.back_us <= kSmallStepBackUs;
    if ((is_break && !search.is_at_break) ||
        (is_small && search.hidden.found == sight::continues)) {
        search.hidden = here;
        search.is_at_break = is_break;
    }
}

// Takes the walk over one packet. returns whether it comes after a jump of its own, in `here`.
static bool look_at(const stream_clock &clock, search &search, const jump &jump,
                    const AVPacket &packet, outlook &here)
{
    const std::optional<int64_t> stamp = unwrap_next(clock, search.place, packet);
    if (!stamp) {
        advance(clock, search.place, packet, stamp);
        return false;
    }
    const int64_t near = av_rescale_q(jump.stamp, clock.other->time_base, clock.time_base);
    here.stamp = unwrap(clock, *stamp, near);
    here.end_us = search.place.end_us;
    const bool is_near = std::abs(microseconds(clock, here.stamp - near)) <= kInterleaveUs;
    const int64_t time_us = microseconds(clock, *stamp) + clock.offset_us;
    if (has_jumped(clock, search.place, time_us)) {
        here.found = is_near ? sight::crossing : sight::has_end;
        return true;
    }
    if (is_near && search.place.stamp &&
        std::max(packet.pos, search.place.position) >= jump.old_position) {
        note_hidden(search, jump, here, time_us - search.place.end_us);
    }
    advance(clock, search.place, packet, stamp);
    return false;
}

// Looks for the packet with which the stream crosses to the clock to which the other one has
// jumped.
static outlook find_crossing(stream_clock &clock, const jump &jump)
{
    search search = {.place = clock.place};
    outlook found = {sight::continues};
    for (size_t i = clock.placed; found.found == sight::continues; i++) {
        outlook here = {sight::crossing, i};
        if (i == clock.ahead.size() && !pull(clock)) {
            found = {sight::has_end, i, 0, search.place.end_us};
        } else if (look_at(clock, search, jump, *clock.ahead[i], here)) {
            found = here;
        } else if (is_far_ahead(clock, search.place, i - clock.placed)) {
            const bool is_before = search.place.position < jump.position;
            found.found =
                is_before && clock.other->may_wait ? sight::nothing_yet : sight::continues;
            break;
        }
    }
    const bool is_hidden = search.hidden.found == sight::crossing;
    return found.found != sight::crossing && is_hidden ? search.hidden : found;
}

// Both streams have crossed: one offset for both.
static void close_jump_of_both(stream_clock &clock, int64_t stamp, const outlook &crossing)
{
    stream_clock &other = *clock.other;
    while (other.placed < crossing.index) {
        place_packet(other, unwrap_next(other, other.place, *other.ahead[other.placed]));
    }
    clock.offset_us = std::max(clock.place.end_us - microseconds(clock, stamp),
                               crossing.end_us - microseconds(other, crossing.stamp));
    other.offset_us = clock.offset_us;
    clock.jumps++;
    place_packet(other, crossing.stamp);
}

// Whether the other stream has crossed the jump before, and this one follows.
static bool follow_other(stream_clock &clock, int64_t &stamp)
{
    const stream_clock &other = *clock.other;
    if (other.offset_us == clock.offset_us || !other.place.stamp) {
        return false;
    }
    const int64_t near = av_rescale_q(*other.place.stamp, other.time_base, clock.time_base);
    const int64_t followed = unwrap(clock, stamp, near);
    const int64_t time_us = microseconds(clock, followed) + other.offset_us;
    if (time_us + kJumpBackUs <= clock.place.last_us ||
        std::abs(time_us - other.place.last_us) > kJumpAheadUs) {
        return false;
    }
    clock.offset_us = other.offset_us;
    stamp = followed;
    return true;
}

// Closes the jump to the time stamp. returns false when it is too early to tell where the line
// continues.
static bool close_jump(stream_clock &clock, int64_t &stamp, int64_t position)
{
    int64_t end_us = clock.place.end_us;
    if (clock.other != nullptr) {
        if (follow_other(clock, stamp)) {
            return true;
        }
        const int64_t time_us = microseconds(clock, stamp) + clock.offset_us;
        const outlook outlook = find_crossing(
            *clock.other, {stamp, clock.place.last_us - time_us, position, clock.place.position});
        if (outlook.found == sight::nothing_yet) {
            return false;
        }
        if (outlook.found == sight::crossing) {
            close_jump_of_both(clock, stamp, outlook);
            return true;
        }
        if (outlook.found == sight::has_end) {
            end_us = std::max(end_us, outlook.end_us);
        }
    }
    clock.offset_us = end_us - microseconds(clock, stamp);
    clock.jumps++;
    return true;
}

// Puts the next packet of `ahead` on the line. returns false when it has to wait.
static bool place_next(stream_clock &clock)
{
    const AVPacket &packet = *clock.ahead[clock.placed];
    std::optional<int64_t> stamp = unwrap_next(clock, clock.place, packet);
    if (stamp) {
        const int64_t time_us = microseconds(clock, *stamp) + clock.offset_us;
        if (has_jumped(clock, clock.place, time_us) &&
            !close_jump(clock, *stamp, std::max(packet.pos, clock.place.position))) {
            return false;
        }
    }
    place_packet(clock, stamp);
    return true;
}

// Puts the other stream's packets on the line as far as to the same place in the file, so that a
// jump there is known before this stream goes beyond it.
static void keep_up(stream_clock &clock, int64_t position)
{
    stream_clock &other = *clock.other;
    while (other.place.position < position &&
           !is_far_ahead(other, other.place, other.ahead.size()) &&
           (other.placed < other.ahead.size() || pull(other)) && place_next(other)) {
    }
}

packet_ptr stream_clock_read(stream_clock &clock)
{
    clock.waits = false;
    if (clock.ahead.empty() && !pull(clock)) {
        if (clock.fault) {
            std::rethrow_exception(clock.fault);
        }
        return nullptr;
    }
    if (clock.placed == 0 && clock.other != nullptr) {
        keep_up(clock, clock.ahead.front()->pos);
    }
    if (clock.placed == 0 && !place_next(clock)) {
        clock.waits = true;
        return nullptr;
    }
    packet_ptr packet = std::move(clock.ahead.front());
    clock.ahead.pop_front();
    clock.placed--;
    return packet;
}

void stream_clock_join(stream_clock &one, stream_clock &other)
{
    one.other = &other;
    other.other = &one;
}

void stream_clock_part(stream_clock &clock)
{
    if (clock.other != nullptr) {
        clock.other->other = nullptr;
        clock.other = nullptr;
    }
}

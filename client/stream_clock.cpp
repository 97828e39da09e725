#include "client/stream_clock.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavutil/mathematics.h>
}

// Time stamps that leave the line by more than this have jumped.
static constexpr int64_t JUMP_BACK_US = 100'000;
static constexpr int64_t JUMP_AHEAD_US = 10'000'000;

// A step back within this range by one stream alone is that stream's; the clock has not restarted.
static constexpr int64_t LONE_STEP_BACK_US = 1'000'000;

// On one clock, the streams of an input are this close to each other.
static constexpr int64_t INTERLEAVE_US = 10'000'000;

// A gap or overlap from here on may be the place of a jump that is too small to show as one.
static constexpr int64_t BREAK_US = 50'000;

// How far beyond a stream's end on the old clock the other one's end is looked for.
static constexpr int64_t LOOK_AHEAD_US = 3'000'000;
static constexpr size_t LOOK_AHEAD_PACKETS = 2'000;

static constexpr int64_t STAMP_MAX_US = int64_t{1} << 56;

void packet_deleter::operator()(AVPacket *packet) const
{
    av_packet_free(&packet);
}

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
    return av_rescale_q(stamp, clock.time_base, {1, 1'000'000});
}

static int64_t unwrap_next(const stream_clock &clock, const stream_place &place, int64_t stamp)
{
    if (place.stamp) {
        return unwrap(clock, stamp, *place.stamp);
    }
    const stream_clock *const other = clock.other;
    const bool is_comparable =
        other != nullptr && other->place.stamp && av_cmp_q(clock.time_base, other->time_base) == 0;
    return is_comparable ? unwrap(clock, stamp, *other->place.stamp) : stamp;
}

// Goes on to a packet with that time stamp; without one, to the end of the last.
static void advance(const stream_clock &clock, stream_place &place, const AVPacket &packet,
                    std::optional<int64_t> stamp)
{
    place.last_us = stamp ? microseconds(clock, *stamp) + clock.offset_us : place.end_us;
    place.end_us =
        place.last_us + (clock.step_us > 0 ? clock.step_us : microseconds(clock, packet.duration));
    place.position = std::max(place.position, packet.pos);
    place.stamp = stamp ? stamp : place.stamp;
}

// Puts the packet in front of those that are not on the line on it. in: its unwrapped time stamp.
static void place_packet(stream_clock &clock, std::optional<int64_t> stamp)
{
    AVPacket &packet = *clock.ahead[clock.placed++];
    if (stamp) {
        const int64_t moved = *stamp - *stamp_of(packet) +
                              av_rescale_q(clock.offset_us, {1, 1'000'000}, clock.time_base);
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
    return time_us + JUMP_BACK_US <= place.last_us || time_us > ahead_us + JUMP_AHEAD_US;
}

// Takes away what no arithmetic on times could hold.
static void drop_wild_stamps(const stream_clock &clock, AVPacket &packet)
{
    for (int64_t *const stamp : {&packet.pts, &packet.dts}) {
        const int64_t time_us = *stamp == AV_NOPTS_VALUE ? 0 : microseconds(clock, *stamp);
        if (time_us < -STAMP_MAX_US || time_us > STAMP_MAX_US) {
            *stamp = AV_NOPTS_VALUE;
        }
    }
    packet.duration = std::clamp<int64_t>(
        packet.duration, 0, av_rescale_q(JUMP_AHEAD_US, {1, 1'000'000}, clock.time_base));
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
    } catch (...) { // for its own reader, behind the packets that came before it
        clock.fault = std::current_exception();
        clock.ended = true;
    }
    return !clock.ended;
}

// What a look at the other stream's packets finds.
enum class sight { crossing, goes_on, has_end, nothing_yet };

struct outlook {
    sight found;
    size_t index = 0;  // of the first packet on the new clock
    int64_t stamp = 0; // its own
    int64_t end_us = 0;
};

// Looks for the packet with which the other stream crosses to the clock on which `stamp` is. A jump
// of its own shows it; where it lost enough to hide that, the first break since the place in the
// file of the last packet before this stream's jump.
static outlook look_ahead(const stream_clock &clock, int64_t stamp, int64_t position)
{
    stream_clock &other = *clock.other;
    const int64_t near_stamp = av_rescale_q(stamp, clock.time_base, other.time_base);
    stream_place place = other.place;
    outlook hidden = {sight::nothing_yet};
    for (size_t i = other.placed;; i++) {
        if (i == other.ahead.size() && !pull(other)) {
            break;
        }
        const AVPacket &packet = *other.ahead[i];
        std::optional<int64_t> next = stamp_of(packet);
        if (next) {
            const int64_t on_new_clock = unwrap(other, *next, near_stamp);
            const bool is_near =
                std::abs(microseconds(other, on_new_clock - near_stamp)) <= INTERLEAVE_US;
            next = unwrap_next(other, place, *next);
            const int64_t time_us = microseconds(other, *next) + other.offset_us;
            const outlook here = {sight::crossing, i, on_new_clock, place.end_us};
            if (has_jumped(other, place, time_us)) {
                return is_near ? here : outlook{sight::has_end, i, 0, place.end_us};
            }
            if (hidden.found == sight::nothing_yet && is_near && place.stamp &&
                std::max(packet.pos, place.position) >= clock.place.position &&
                std::abs(time_us - place.end_us) > BREAK_US) {
                hidden = here;
            }
        }
        advance(other, place, packet, next);
        if (place.last_us > clock.place.end_us + LOOK_AHEAD_US ||
            i - other.placed >= LOOK_AHEAD_PACKETS) {
            if (hidden.found == sight::crossing) {
                return hidden;
            }
            return {place.position < position && clock.may_wait ? sight::nothing_yet
                                                                : sight::goes_on};
        }
    }
    return hidden.found == sight::crossing ? hidden : outlook{sight::has_end, 0, 0, place.end_us};
}

// The other stream has crossed, too: one offset for both.
static void close_jump_of_both(stream_clock &clock, int64_t stamp, const outlook &crossing)
{
    stream_clock &other = *clock.other;
    while (other.placed < crossing.index) {
        const std::optional<int64_t> old_stamp = stamp_of(*other.ahead[other.placed]);
        place_packet(other, old_stamp ? std::optional(unwrap_next(other, other.place, *old_stamp))
                                      : std::nullopt);
    }
    const int64_t offset_us = std::max(clock.place.end_us - microseconds(clock, stamp),
                                       crossing.end_us - microseconds(other, crossing.stamp));
    clock.offset_us = offset_us;
    other.offset_us = offset_us;
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
    if (time_us + JUMP_BACK_US <= clock.place.last_us ||
        std::abs(time_us - other.place.last_us) > JUMP_AHEAD_US) {
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
        const outlook outlook = look_ahead(clock, stamp, position);
        const int64_t back_us = clock.place.last_us - microseconds(clock, stamp) - clock.offset_us;
        switch (outlook.found) {
        case sight::nothing_yet:
            return false;
        case sight::crossing:
            close_jump_of_both(clock, stamp, outlook);
            return true;
        case sight::goes_on:
            if (back_us > 0 && back_us <= LONE_STEP_BACK_US) {
                return true;
            }
            break;
        case sight::has_end:
            end_us = std::max(end_us, outlook.end_us);
            break;
        }
    }
    clock.offset_us = end_us - microseconds(clock, stamp);
    clock.jumps++;
    return true;
}

// Puts the packet at the front on the line. returns false when it has to wait.
static bool place_front(stream_clock &clock)
{
    std::optional<int64_t> stamp = stamp_of(*clock.ahead.front());
    if (stamp) {
        stamp = unwrap_next(clock, clock.place, *stamp);
        const int64_t time_us = microseconds(clock, *stamp) + clock.offset_us;
        if (has_jumped(clock, clock.place, time_us) &&
            !close_jump(clock, *stamp, std::max(clock.ahead.front()->pos, clock.place.position))) {
            return false;
        }
    }
    place_packet(clock, stamp);
    return true;
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
    if (clock.placed == 0 && !place_front(clock)) {
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

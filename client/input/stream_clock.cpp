#include "client/input/stream_clock.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavutil/mathematics.h>
}

// A time stamp further from the line than this has jumped.
static constexpr int64_t kJumpBackUs = 100'000;
static constexpr int64_t kJumpAheadUs = 10'000'000;

// A step back of at most this can be hidden completely by packets that the stream lost.
static constexpr int64_t kSmallStepBackUs = 3'000'000;

// The streams of an input are this close to each other on one clock.
static constexpr int64_t kInterleaveUs = 10'000'000;

// A gap or overlap of more than this may be a jump that is too small to count as one.
static constexpr int64_t kBreakUs = 40'000;

// How far the other stream is read ahead.
static constexpr int64_t kLookAheadUs = 3'000'000;
static constexpr size_t kLookAheadPackets = 2'000;

static constexpr int64_t kStampMaxUs = int64_t{1} << 56;

// The longest run, and the longest gap after it that losses within the run can explain.
static constexpr size_t kRunPackets = 64;
static constexpr int64_t kRunGapMaxUs = 80'000;

static std::optional<int64_t> stamp_of(const AVPacket &packet)
{
    const int64_t stamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    return stamp == AV_NOPTS_VALUE ? std::nullopt : std::optional(stamp);
}

// returns: of the values that a wrapping time stamp can have, the one nearest to `near`
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

// returns: the packet's time stamp without its wraps; nothing without a time stamp
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

// Advances to a packet.
// in: its unwrapped time stamp; without one, the packet begins at the end of the last one
static void advance(const stream_clock &clock, stream_place &place, const AVPacket &packet,
                    std::optional<int64_t> stamp)
{
    place.last_us = stamp ? microseconds(clock, *stamp) + clock.offset_us : place.end_us;
    place.end_us =
        place.last_us + (clock.step_us > 0 ? clock.step_us : microseconds(clock, packet.duration));
    place.position = std::max(place.position, packet.pos);
    place.stamp = stamp ? stamp : place.stamp;
}

// Removes time stamps and durations that would overflow the time arithmetic.
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

// Reads a packet into `ahead`.
// returns: false at the end, and when the packet is late
static bool pull(stream_clock &clock)
{
    clock.is_late = false;
    if (clock.ended) {
        return false;
    }
    try {
        packet_ptr packet = clock.source();
        clock.ended = packet == nullptr && !clock.is_late;
        if (packet != nullptr) {
            drop_wild_stamps(clock, *packet);
            clock.ahead.push_back(std::move(packet));
        }
    } catch (...) { // for this stream's reader, after the packets before it
        clock.fault = std::current_exception();
        clock.ended = true;
    }
    return !clock.ended && !clock.is_late;
}

// returns: the gap after the run that begins with the next packet to be placed; 0 if losses within
//          the run cannot explain it
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

// Puts the next packet of `ahead` on the line.
// in: its unwrapped time stamp
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
            ? std::max(place.end_us, clock.other->place.last_us) // where one stream is, both may be
            : place.end_us;
    return time_us + kJumpBackUs <= place.last_us || time_us > ahead_us + kJumpAheadUs;
}

// returns: whether the stream is as far ahead of the other one as it is searched
static bool is_far_ahead(const stream_clock &clock, const stream_place &place, size_t packets)
{
    return packets >= kLookAheadPackets || place.last_us > clock.other->place.end_us + kLookAheadUs;
}

// The jump of one stream, for which the other is searched.
struct jump {
    int64_t stamp;        // of the first packet after it
    int64_t back_us;      // negative: a jump ahead
    int64_t position;     // of that packet in the file
    int64_t old_position; // of the last packet before it
};

// What the search finds in the other stream: its crossing, no sign of one, its end, or too few
// packets so far.
enum class search_outcome { crossed, continues, ended, undecided };

struct search_result {
    search_outcome outcome;
    size_t index = 0;   // of the first packet on the new clock
    int64_t stamp = 0;  // its own
    int64_t end_us = 0; // of the last packet before it
};

// A walk over packets that are not on the line yet.
struct search {
    stream_place place;
    // A possible crossing without a visible jump.
    search_result hidden = {search_outcome::continues};
    bool is_at_break = false; // the hidden crossing is at a gap or overlap
};

// Notes where the stream may have crossed to the new clock without a visible jump, because it lost
// packets there: at the first gap or overlap after the jump's place in the file. A small step back
// may show no gap at all.
static void note_hidden(search &search, const jump &jump, const search_result &here,
                        int64_t away_us)
{
    const bool is_break = std::abs(away_us) > kBreakUs;
    const bool is_small = jump.back_us > 0 && jump.back_us <= kSmallStepBackUs;
    if ((is_break && !search.is_at_break) ||
        (is_small && search.hidden.outcome == search_outcome::continues)) {
        search.hidden = here;
        search.is_at_break = is_break;
    }
}

// Advances the search over one packet.
// out: the result at this packet
// returns: whether the stream has jumped before it
static bool look_at(const stream_clock &clock, search &search, const jump &jump,
                    const AVPacket &packet, search_result &here)
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
        here.outcome = is_near ? search_outcome::crossed : search_outcome::ended;
        return true;
    }
    if (is_near && search.place.stamp &&
        std::max(packet.pos, search.place.position) >= jump.old_position) {
        note_hidden(search, jump, here, time_us - search.place.end_us);
    }
    advance(clock, search.place, packet, stamp);
    return false;
}

// Searches for the packet with which the stream crosses to the clock to which the other one has
// jumped.
static search_result find_crossing(stream_clock &clock, const jump &jump)
{
    search search = {.place = clock.place};
    search_result found = {search_outcome::continues};
    for (size_t i = clock.placed; found.outcome == search_outcome::continues; i++) {
        search_result here = {search_outcome::crossed, i};
        if (i == clock.ahead.size() && !pull(clock)) {
            found = {search_outcome::ended, i, 0, search.place.end_us};
        } else if (look_at(clock, search, jump, *clock.ahead[i], here)) {
            found = here;
        } else if (is_far_ahead(clock, search.place, i - clock.placed)) {
            const bool is_before = search.place.position < jump.position;
            found.outcome = is_before && clock.other->may_wait ? search_outcome::undecided
                                                               : search_outcome::continues;
            break;
        }
    }
    const bool is_hidden = search.hidden.outcome == search_outcome::crossed;
    return found.outcome != search_outcome::crossed && is_hidden ? search.hidden : found;
}

// Lets the line continue at another offset.
// in: the time stamp of the first packet after the jump
static void change_offset(stream_clock &clock, int64_t stamp, int64_t offset_us)
{
    loss_note(clock.losses,
              {loss_track::both, loss_kind::clock_jump, microseconds(clock, stamp) + offset_us,
               clock.offset_us - offset_us, 0});
    clock.offset_us = offset_us;
    clock.jumps++;
}

// Gives both streams, which have crossed, one offset.
static void close_jump_of_both(stream_clock &clock, int64_t stamp, const search_result &crossing)
{
    stream_clock &other = *clock.other;
    while (other.placed < crossing.index) {
        place_packet(other, unwrap_next(other, other.place, *other.ahead[other.placed]));
    }
    change_offset(clock, stamp,
                  std::max(clock.place.end_us - microseconds(clock, stamp),
                           crossing.end_us - microseconds(other, crossing.stamp)));
    other.offset_us = clock.offset_us;
    place_packet(other, crossing.stamp);
}

// Follows the other stream, if it has crossed the jump before, to its offset.
// out: the time stamp, unwrapped to that clock
// returns: whether it has
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

// Closes the jump to the time stamp.
// returns: false while it depends on packets still to be read where the line continues
static bool close_jump(stream_clock &clock, int64_t &stamp, int64_t position)
{
    int64_t end_us = clock.place.end_us;
    if (clock.other != nullptr) {
        if (follow_other(clock, stamp)) {
            return true;
        }
        const int64_t time_us = microseconds(clock, stamp) + clock.offset_us;
        const search_result result = find_crossing(
            *clock.other, {stamp, clock.place.last_us - time_us, position, clock.place.position});
        if (result.outcome == search_outcome::undecided) {
            return false;
        }
        if (result.outcome == search_outcome::crossed) {
            close_jump_of_both(clock, stamp, result);
            return true;
        }
        if (result.outcome == search_outcome::ended) {
            end_us = std::max(end_us, result.end_us);
        }
    }
    change_offset(clock, stamp, end_us - microseconds(clock, stamp));
    return true;
}

// Puts the next packet of `ahead` on the line, after closing the jump before it.
// returns: false when it has to wait
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

// Puts the other stream's packets on the line up to the same position in the file, so that a jump
// there is known before this stream passes it.
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
        clock.waits = clock.is_late;
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

#include "client/input/adts_frames.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <span>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/mathematics.h>
}

using bytes = std::span<const uint8_t>;

static constexpr size_t kHeaderBytes = 7;

// The first 28 bits of a header: up to the variable part.
// source: ISO/IEC 14496-3, 1.A.2.2, adts_fixed_header()
static constexpr uint32_t kFixedMask = 0xFFFFFFF0;
static constexpr uint32_t kSyncMask = 0xFFF60000, kSync = 0xFFF00000; // with the layer, which is 0

// So many packets at most are taken together, up to the next one with a time stamp of its own.
static constexpr size_t kRunPackets = 64;
static constexpr size_t kRunPacketsMax = 256; // also where none is whole

// So many frames in turn with another header are a change of the stream.
static constexpr unsigned kFramesOfChange = 3;

// With a longer overlap, the clock has jumped in the hole.
static constexpr int64_t kOverlapMaxS = 1;

static uint32_t head_at(bytes data, size_t at)
{
    const uint32_t word = uint32_t{data[at]} << 24 | uint32_t{data[at + 1]} << 16 |
                          uint32_t{data[at + 2]} << 8 | data[at + 3];
    return word & kFixedMask;
}

static size_t frame_bytes_at(bytes data, size_t at)
{
    return (data[at + 3] & size_t{3}) << 11 | size_t{data[at + 4]} << 3 | data[at + 5] >> 5;
}

static bytes bytes_of(const AVPacket &packet)
{
    return {packet.data, static_cast<size_t>(packet.size)};
}

// returns: whether the packet has the form of one frame, of whatever stream
static bool is_framed(const AVPacket &packet)
{
    const bytes data = bytes_of(packet);
    return data.size() >= kHeaderBytes && (head_at(data, 0) & kSyncMask) == kSync &&
           frame_bytes_at(data, 0) == data.size();
}

static bool is_own_frame(const adts_frames &frames, const AVPacket &packet)
{
    return is_framed(packet) && (!frames.head || head_at(bytes_of(packet), 0) == *frames.head);
}

static packet_ptr pull(adts_frames &frames)
{
    if (frames.ended) {
        return nullptr;
    }
    try {
        packet_ptr packet = frames.source();
        frames.ended = packet == nullptr;
        return packet;
    } catch (...) { // for the call after the packets before it
        frames.fault = std::current_exception();
        frames.ended = true;
        return nullptr;
    }
}

// Packets from the last one before the first that is no frame, which may have swallowed the begin
// of that one, up to the next one with a time stamp of its own.
struct damaged_run {
    std::vector<packet_ptr> packets;
    packet_ptr next; // none at the end
    bool is_change = false;
};

static damaged_run take_run(adts_frames &frames, packet_ptr first)
{
    damaged_run run;
    if (frames.held != nullptr) {
        run.packets.push_back(std::move(frames.held));
    }
    unsigned others = 0;
    packet_ptr packet = std::move(first);
    while (packet != nullptr) {
        const bool is_own = is_own_frame(frames, *packet);
        const bool is_end = is_own && (packet->pos >= 0 || run.packets.size() >= kRunPackets);
        if (is_end) {
            run.next = std::move(packet);
            break;
        }
        others = !is_own && is_framed(*packet) ? others + 1 : 0;
        const uint32_t head = is_framed(*packet) ? head_at(bytes_of(*packet), 0) : 0;
        run.packets.push_back(std::move(packet));
        run.is_change = others >= kFramesOfChange;
        if (run.is_change || run.packets.size() >= kRunPacketsMax) {
            frames.head = run.is_change ? head : frames.head;
            break;
        }
        packet = pull(frames);
    }
    return run;
}

struct found_frame {
    bytes data;
    bool is_after_hole; // bytes of no frame are before it
};

// returns: the frames in the bytes
static std::vector<found_frame> find_frames(bytes data, uint32_t head)
{
    std::vector<found_frame> found;
    size_t at = 0, end = 0; // the latter of the last frame
    while (data.size() - at >= kHeaderBytes) {
        const size_t size = frame_bytes_at(data, at);
        const size_t rest = data.size() - at;
        const bool is_frame = head_at(data, at) == head && size >= kHeaderBytes && size <= rest &&
                              (rest - size < kHeaderBytes || head_at(data, at + size) == head);
        if (is_frame) {
            found.push_back({data.subspan(at, size), at > end});
            end = at + size;
        }
        at += is_frame ? size : 1;
    }
    return found;
}

static packet_ptr make_packet(bytes frame, const AVPacket &like)
{
    packet_ptr packet(av_packet_alloc());
    if (packet == nullptr || av_new_packet(packet.get(), static_cast<int>(frame.size())) < 0) {
        throw std::bad_alloc();
    }
    std::copy(frame.begin(), frame.end(), packet->data);
    packet->stream_index = like.stream_index;
    packet->flags = like.flags & ~AV_PKT_FLAG_CORRUPT; // the frame is whole
    packet->pos = -1;
    return packet;
}

// returns: how much later than its frames the run ends, by the time stamp of the packet after it
static int64_t missing_in_run(const adts_frames &frames, const damaged_run &run, size_t count)
{
    const AVPacket &first = *run.packets.front();
    if (run.next == nullptr || run.next->pos < 0 || run.next->pts == AV_NOPTS_VALUE ||
        first.pts == AV_NOPTS_VALUE) {
        return 0;
    }
    const int64_t end = first.pts + static_cast<int64_t>(count) * first.duration;
    const int64_t missing = run.next->pts - end;
    const bool overlaps =
        missing < 0 && missing > -av_rescale_q(kOverlapMaxS, {1, 1}, frames.time_base);
    return overlaps ? 0 : missing;
}

// Puts what is missing in the run where it has holes. Of several, each has lost one frame at least;
// the last one gets the rest, so that the frames after it are where they belong.
static void split_run(adts_frames &frames, const damaged_run &run)
{
    std::vector<uint8_t> joined;
    for (const packet_ptr &packet : run.packets) {
        const bytes data = bytes_of(*packet);
        joined.insert(joined.end(), data.begin(), data.end());
    }
    const AVPacket &first = *run.packets.front();
    const std::vector<found_frame> found = find_frames(joined, *frames.head);
    int64_t missing = missing_in_run(frames, run, found.size());
    int64_t holes = std::count_if(found.begin(), found.end(),
                                  [](const found_frame &one) { return one.is_after_hole; });
    int64_t pts = first.pts;
    for (const found_frame &one : found) {
        if (one.is_after_hole) {
            holes--;
            const int64_t share =
                holes == 0 ? missing : std::min(std::max<int64_t>(missing, 0), first.duration);
            pts += first.pts != AV_NOPTS_VALUE ? share : 0;
            missing -= share;
        }
        packet_ptr packet = make_packet(one.data, first);
        if (first.pts != AV_NOPTS_VALUE) {
            packet->pts = pts;
            packet->dts = pts;
            pts += first.duration;
        }
        packet->duration = first.duration;
        packet->pos = &one == &found.front() ? first.pos : -1;
        frames.ready.push_back(std::move(packet));
    }
}

// Adds at least one packet, or the null at the end, to the ready ones.
static void make_ready(adts_frames &frames)
{
    while (frames.ready.empty()) {
        packet_ptr packet = pull(frames);
        if (packet != nullptr && frames.head && !is_own_frame(frames, *packet)) {
            damaged_run run = take_run(frames, std::move(packet));
            if (run.is_change) {
                std::move(run.packets.begin(), run.packets.end(), std::back_inserter(frames.ready));
            } else {
                split_run(frames, run);
            }
            packet = std::move(run.next);
        } else if (packet != nullptr && !frames.head && is_framed(*packet)) {
            frames.head = head_at(bytes_of(*packet), 0);
        }
        if (frames.held != nullptr) {
            frames.ready.push_back(std::move(frames.held));
        }
        frames.held = std::move(packet);
        if (frames.held == nullptr && frames.ended) {
            frames.ready.push_back(nullptr);
        }
    }
}

packet_ptr adts_frames_read(adts_frames &frames)
{
    if (frames.ready.empty()) {
        make_ready(frames);
    }
    packet_ptr packet = std::move(frames.ready.front());
    frames.ready.pop_front();
    if (packet == nullptr && frames.fault) {
        std::rethrow_exception(std::exchange(frames.fault, nullptr));
    }
    return packet;
}

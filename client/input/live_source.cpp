#include "client/input/live_source.h"

#include "client/failure.h"
#include "client/input/file_end.h"
#include "client/input/media_format.h"

#include <algorithm>
#include <poll.h>
#include <utility>
#include <vector>

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How far one stream is read on the way to the other.
static constexpr int64_t kQueuedMaxUs = 3 * kSecondUs;
static constexpr size_t kQueuedMaxPackets = 2'000;
static constexpr int64_t kStepMaxUs = kSecondUs;

live_source::~live_source()
{
    avformat_close_input(&format);
}

std::shared_ptr<live_source> live_source_open(const std::string &path, const wait_hook &on_wait)
{
    std::shared_ptr<live_source> source = std::make_shared<live_source>();
    live_io_open(source->io, path, on_wait);
    return source;
}

void live_source_begin(live_source &source, int pcm_rate)
{
    live_io &io = source.io;
    live_io_begin(io);
    try {
        media_format_open(source.format, io.context, io.path,
                          {.pcm_rate = pcm_rate, .is_live = true});
    } catch (const failure &) {
        if (!io.fault && io.received_bytes > 0) {
            throw;
        }
    }
    if (io.fault) {
        std::rethrow_exception(io.fault);
    }
    if (io.received_bytes == 0) {
        throw failure(exit_code::input, io.path + ": is empty");
    }
}

// returns: why the source broke off; empty for its normal end
static std::string break_text(const live_source &source, int error)
{
    if (error != AVERROR_EOF) {
        return media_error_text(error);
    }
    if (source.io.context->error < 0 && source.io.context->error != AVERROR_EOF) {
        return media_error_text(source.io.context->error);
    }
    if (source.io.context->seekable != 0) { // it has not been read in order
        return "";
    }
    return file_cut_text(
        source.format->iformat->name,
        [&source](int64_t position, std::span<uint8_t> bytes) {
            return live_io_read_kept(source.io, position, bytes);
        },
        source.io.received_bytes);
}

static void push(live_queue &queue, packet_ptr packet)
{
    const int64_t stamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    const AVRational base = queue.stream->time_base;
    int64_t step_us = av_rescale_q(packet->duration, base, kMicroseconds);
    if (stamp != AV_NOPTS_VALUE) {
        const int64_t time_us = av_rescale_q(stamp, base, kMicroseconds);
        step_us = queue.last_us ? time_us - *queue.last_us : 0;
        queue.last_us = time_us;
    }
    step_us = std::clamp<int64_t>(step_us, 0, kStepMaxUs);
    queue.span_us += step_us;
    queue.packets.push_back({std::move(packet), step_us});
}

// The demuxer returns what it held of a stream that has moved to another identifier at the end.
// returns: whether the packet is of the queue's stream, and follows its last one
static bool belongs_to(live_queue &queue, const AVPacket &packet)
{
    if (queue.stream == nullptr || packet.stream_index != queue.stream->index ||
        (packet.pos >= 0 && packet.pos < queue.position)) {
        return false;
    }
    queue.position = std::max(queue.position, packet.pos);
    return true;
}

// Queues a packet of the stream. After a stop, the demuxer returns what it has begun, of which the
// last packet may be incomplete.
static void take(live_source &source, live_queue &queue, packet_ptr packet)
{
    if (source.io.stopped) {
        std::swap(packet, queue.doubted);
    }
    if (packet != nullptr) {
        push(queue, std::move(packet));
    }
}

static packet_ptr pop(live_queue &queue)
{
    packet_ptr packet = std::move(queue.packets.front().packet);
    queue.span_us -= queue.packets.front().step_us;
    queue.packets.pop_front();
    return packet;
}

// Reads one packet. Notes the end.
// returns: the packet; null at the end
static packet_ptr demux(live_source &source)
{
    packet_ptr packet(av_packet_alloc());
    if (packet == nullptr) {
        throw std::bad_alloc();
    }
    int error = 0;
    do {
        error = av_read_frame(source.format, packet.get());
    } while (error == AVERROR(EAGAIN));
    if (error >= 0) {
        return packet;
    }
    source.ended = true;
    if (source.io.fault) {
        source.fault = source.io.fault;
    } else if (!source.io.stopped) {
        const std::string text = break_text(source, error);
        if (!text.empty()) {
            source.fault = std::make_exception_ptr(
                failure(exit_code::input, source.io.path + ": breaks off (" + text + ")"));
        }
    }
    return nullptr;
}

static bool is_full(const live_queue &queue)
{
    return queue.packets.size() >= kQueuedMaxPackets || queue.span_us > kQueuedMaxUs;
}

packet_ptr live_source_read(live_source &source, AVMediaType kind, bool &is_late)
{
    const bool is_video = kind == AVMEDIA_TYPE_VIDEO;
    live_queue &wanted = is_video ? source.video : source.audio;
    live_queue &other = is_video ? source.audio : source.video;
    while (wanted.packets.empty() && !source.ended) {
        if (is_full(other)) {
            if (source.begun || !is_video) {
                is_late = true;
                return nullptr;
            }
            (void)pop(other);
        }
        packet_ptr packet = demux(source);
        for (live_queue *const queue : {&wanted, &other}) {
            if (packet != nullptr && belongs_to(*queue, *packet)) {
                take(source, *queue, std::move(packet));
                break;
            }
        }
    }
    if (!wanted.packets.empty()) {
        return pop(wanted);
    }
    if (source.fault) {
        std::rethrow_exception(source.fault);
    }
    return nullptr;
}

// Waits until data of one of the sources are there.
static void await_any(std::span<live_source *const> sources, milliseconds time)
{
    std::vector<pollfd> waited;
    for (const live_source *const source : sources) {
        if (!source->ended && live_io_has_input(source->io)) {
            return;
        }
        waited.push_back({source->ended ? -1 : source->io.descriptor, POLLIN, 0});
    }
    (void)poll(waited.data(), waited.size(), static_cast<int>(time.count()));
}

void live_sources_discard(std::span<live_source *const> sources,
                          std::chrono::system_clock::time_point moment, const wait_hook &on_wait)
{
    steady::time_point hook_called;
    for (;;) {
        const auto left = moment - std::chrono::system_clock::now();
        if (left <= left.zero()) {
            break;
        }
        if (steady::now() - hook_called >= kHookInterval) {
            hook_called = steady::now();
            if (on_wait && on_wait(0)) {
                return;
            }
        }
        const auto step = std::chrono::ceil<milliseconds>(left);
        await_any(sources, std::min(step, kHookInterval));
        for (live_source *const source : sources) {
            if (!source->ended && live_io_has_input(source->io)) {
                (void)demux(*source);
            }
        }
    }
    // The demuxer still holds older data.
    for (live_source *const source : sources) {
        const int64_t received_bytes = source->io.received_bytes;
        while (!source->ended && source->io.received_bytes == received_bytes) {
            (void)demux(*source);
        }
        if (source->fault) {
            std::rethrow_exception(source->fault);
        }
    }
}

void live_source_stop(live_source &source)
{
    source.io.stops = true;
}

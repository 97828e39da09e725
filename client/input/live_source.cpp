#include "client/input/live_source.h"

#include "client/failure.h"
#include "client/input/file_end.h"
#include "client/input/media_format.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The hook is called this long after data stop arriving, and then in this interval.
static constexpr milliseconds kShortWait(20), kHookInterval(200);

// How far one stream is read on the way to the other.
static constexpr int64_t kQueuedMaxUs = 3 * kSecondUs;
static constexpr size_t kQueuedMaxPackets = 2'000;
static constexpr int64_t kStepMaxUs = kSecondUs;

// Room in a pipe for a writer that fills its outputs in turn.
static constexpr int kPipeBytes = 1 << 20;

// How much is read ahead from the source that is not waited for.
static constexpr size_t kBacklogBytesMax = 1 << 24;

// What the check of the end needs.
static constexpr size_t kHeadBytes = 4096, kTailBytes = 4096;

static constexpr size_t kDatagramBytesMax = 1 << 16;

live_source::~live_source()
{
    avformat_close_input(&format);
    if (io != nullptr) {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
    avio_closep(&remote);
    if (descriptor >= 0) {
        close(descriptor);
    }
}

static bool is_standard_input(const std::string &path)
{
    return path == "-" || path == "/dev/stdin";
}

static bool is_remote(const std::string &path)
{
    struct stat status = {};
    return path.find("://") != std::string::npos && stat(path.c_str(), &status) != 0;
}

bool live_source_is(const std::string &path)
{
    struct stat status = {};
    const int error =
        is_standard_input(path) ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status);
    if (error != 0) {
        return is_remote(path);
    }
    return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || S_ISCHR(status.st_mode);
}

std::shared_ptr<live_source> live_source_open(const std::string &path, const wait_hook &on_wait)
{
    std::shared_ptr<live_source> source = std::make_shared<live_source>();
    source->path = path;
    source->on_wait = on_wait;
    if (is_remote(path)) {
        return source;
    }
    source->descriptor = is_standard_input(path)
                             ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                             : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (source->descriptor < 0) {
        fail_with_errno(exit_code::input, path);
    }
    if (isatty(source->descriptor) != 0) {
        throw failure(exit_code::input, path + ": is a terminal");
    }
    (void)fcntl(source->descriptor, F_SETPIPE_SZ, kPipeBytes); // a pipe may be refused more
    return source;
}

// The hook's exceptions must not pass through the library, which is C.
static void call_hook(live_source &source, steady::time_point now, double silent_s)
{
    source.hook_called = now;
    try {
        source.stops = (source.on_wait && source.on_wait(silent_s)) || source.stops;
    } catch (...) {
        source.fault = std::current_exception();
        source.stops = true;
    }
}

// Calls the hook when it is due.
// returns: false when the source is to end
static bool keep_waiting(live_source &source)
{
    const steady::time_point now = steady::now();
    const steady::duration silent = now - source.read_begun;
    const bool is_first = source.hook_called < source.read_begun;
    if (is_first ? silent >= kShortWait : now - source.hook_called >= kHookInterval) {
        call_hook(source, now, std::chrono::duration<double>(silent).count());
    }
    return !source.stops;
}

static int on_interrupt(void *opaque)
{
    return keep_waiting(*static_cast<live_source *>(opaque)) ? 0 : 1;
}

// Waits for data of the source or of its companion.
// returns: as poll(), for the source alone
static int await_data(live_source &source, milliseconds time)
{
    live_source *const other = source.companion;
    const bool has_room = other != nullptr && other->backlog.size() < kBacklogBytesMax;
    pollfd waited[] = {{source.descriptor, POLLIN, 0},
                       {has_room ? other->descriptor : -1, POLLIN, 0}};
    const int ready = poll(waited, std::size(waited), static_cast<int>(time.count()));
    if (ready <= 0) {
        return ready;
    }
    if (waited[1].revents != 0) {
        std::array<uint8_t, kIoBufferBytes> bytes;
        const ssize_t got = read(other->descriptor, bytes.data(), bytes.size());
        other->backlog.insert(other->backlog.end(), bytes.data(),
                              bytes.data() + std::max<ssize_t>(got, 0));
        if (got <= 0) { // its own reader will meet this again
            source.companion = nullptr;
        }
    }
    return waited[0].revents != 0 ? 1 : 0;
}

static int read_backlog(live_source &source, uint8_t *buffer, size_t size)
{
    const size_t taken = std::min(size, source.backlog.size());
    const auto end = source.backlog.begin() + static_cast<ptrdiff_t>(taken);
    std::copy(source.backlog.begin(), end, buffer);
    source.backlog.erase(source.backlog.begin(), end);
    return static_cast<int>(taken);
}

static int read_descriptor(live_source &source, uint8_t *buffer, size_t size)
{
    if (!source.backlog.empty()) {
        return read_backlog(source, buffer, size);
    }
    for (;;) {
        const bool is_first = source.hook_called < source.read_begun;
        const int ready = await_data(source, is_first ? kShortWait : kHookInterval);
        if (ready < 0 && errno != EINTR) {
            return AVERROR(errno);
        }
        if (ready <= 0) {
            if (!keep_waiting(source)) {
                return AVERROR_EXIT;
            }
            continue;
        }
        const ssize_t got = read(source.descriptor, buffer, size);
        // A receiver's device reports data that it had to drop; the rest follows.
        const bool is_passing = errno == EAGAIN || errno == EINTR || errno == EOVERFLOW;
        if (got >= 0 || !is_passing) {
            return got > 0 ? static_cast<int>(got) : got == 0 ? AVERROR_EOF : AVERROR(errno);
        }
    }
}

// Removes the header and the padding of an RTP packet.
// source: RFC 3550, 5.1 and 5.3.1
static void strip_rtp(std::vector<uint8_t> &packet)
{
    static constexpr size_t kHeaderBytes = 12, kExtensionHeadBytes = 4;
    if (packet.size() < kHeaderBytes) {
        packet.clear();
        return;
    }
    const bool has_padding = (packet[0] & 0x20) != 0;
    size_t begin = kHeaderBytes + size_t{4} * (packet[0] & 0x0F);
    if ((packet[0] & 0x10) != 0 && begin + kExtensionHeadBytes <= packet.size()) {
        begin += kExtensionHeadBytes + size_t{4} * (packet[begin + 2] << 8 | packet[begin + 3]);
    }
    const size_t padding = has_padding ? packet.back() : 0;
    const size_t end = packet.size() - std::min(padding, packet.size());
    packet.resize(end);
    const size_t stripped = std::min(begin, end);
    packet.erase(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(stripped));
}

static int read_rtp(live_source &source, uint8_t *buffer, size_t size)
{
    while (source.datagram.empty()) {
        source.datagram.resize(kDatagramBytesMax);
        const int got = avio_read_partial(source.remote, source.datagram.data(), kDatagramBytesMax);
        source.datagram.resize(static_cast<size_t>(std::max(got, 0)));
        if (got <= 0) {
            return got < 0 ? got : AVERROR_EOF;
        }
        strip_rtp(source.datagram);
    }
    const size_t taken = std::min(size, source.datagram.size());
    const auto end = source.datagram.begin() + static_cast<ptrdiff_t>(taken);
    std::copy(source.datagram.begin(), end, buffer);
    source.datagram.erase(source.datagram.begin(), end);
    return static_cast<int>(taken);
}

static void note_received(live_source &source, std::span<const uint8_t> bytes)
{
    source.received_bytes += static_cast<int64_t>(bytes.size());
    const size_t room = kHeadBytes - source.head.size();
    const auto head = bytes.first(std::min(room, bytes.size()));
    source.head.insert(source.head.end(), head.begin(), head.end());
    const auto last = bytes.last(std::min(kTailBytes, bytes.size()));
    source.tail.insert(source.tail.end(), last.begin(), last.end());
    if (source.tail.size() > 2 * kTailBytes) {
        source.tail.erase(source.tail.begin(),
                          source.tail.end() - static_cast<ptrdiff_t>(kTailBytes));
    }
}

static int read_io(void *opaque, uint8_t *buffer, int size)
{
    live_source &source = *static_cast<live_source *>(opaque);
    source.read_begun = steady::now();
    const size_t room = static_cast<size_t>(size);
    int got = AVERROR_EXIT;
    if (!source.stops) {
        got = source.remote == nullptr ? read_descriptor(source, buffer, room)
              : source.is_rtp          ? read_rtp(source, buffer, room)
                                       : avio_read_partial(source.remote, buffer, size);
    }
    if (got <= 0) {
        source.stopped = source.stops;
        return got == 0 ? AVERROR_EOF : got;
    }
    note_received(source, {buffer, static_cast<size_t>(got)});
    const steady::time_point now = steady::now();
    if (now - source.hook_called >= kHookInterval) { // data may arrive without a packet in them
        call_hook(source, now, 0);
    }
    return got;
}

static int64_t seek_io(void *opaque, int64_t offset, int whence)
{
    live_source &source = *static_cast<live_source *>(opaque);
    source.read_begun = steady::now();
    return (whence & AVSEEK_SIZE) != 0 ? avio_size(source.remote)
                                       : avio_seek(source.remote, offset, whence);
}

static void connect(live_source &source)
{
    static constexpr char kRtp[] = "rtp://";
    std::string url = source.path;
    source.is_rtp = url.starts_with(kRtp);
    if (source.is_rtp) {
        url.replace(0, std::strlen(kRtp), "udp://");
    }
    source.read_begun = steady::now();
    AVDictionary *options = nullptr;
    // Datagrams that come while the recorder is busy are lost; the connection is not.
    av_dict_set(&options, "overrun_nonfatal", "1", 0);
    const AVIOInterruptCB interrupt = {on_interrupt, &source};
    avformat_network_init();
    const int error = avio_open2(&source.remote, url.c_str(), AVIO_FLAG_READ, &interrupt, &options);
    av_dict_free(&options);
    if (source.fault) {
        std::rethrow_exception(source.fault);
    }
    if (error < 0) {
        throw failure(exit_code::input, source.path + ": " + media_error_text(error));
    }
}

void live_source_begin(live_source &source, int pcm_rate)
{
    av_log_set_level(AV_LOG_QUIET);
    if (source.descriptor < 0) {
        connect(source);
    }
    uint8_t *const buffer = static_cast<uint8_t *>(av_malloc(kIoBufferBytes));
    const bool seeks = source.remote != nullptr && (source.remote->seekable & AVIO_SEEKABLE_NORMAL);
    source.io = avio_alloc_context(buffer, kIoBufferBytes, 0, &source, read_io, nullptr,
                                   seeks ? seek_io : nullptr);
    if (buffer == nullptr || source.io == nullptr) {
        throw std::bad_alloc();
    }
    try {
        media_format_open(source.format, source.io, source.path,
                          {.pcm_rate = pcm_rate, .is_live = true});
    } catch (const failure &) {
        if (!source.fault && source.received_bytes > 0) {
            throw;
        }
    }
    if (source.fault) {
        std::rethrow_exception(source.fault);
    }
    if (source.received_bytes == 0) {
        throw failure(exit_code::input, source.path + ": is empty");
    }
}

// returns: whether bytes of the source can be read again
static bool read_kept(const live_source &source, int64_t position, std::span<uint8_t> bytes)
{
    const int64_t tail_begin = source.received_bytes - static_cast<int64_t>(source.tail.size());
    const bool is_in_tail = position >= tail_begin;
    const std::vector<uint8_t> &kept = is_in_tail ? source.tail : source.head;
    const size_t from = static_cast<size_t>(position - (is_in_tail ? tail_begin : 0));
    if (from > kept.size() || bytes.size() > kept.size() - from) {
        return false;
    }
    std::copy_n(kept.begin() + static_cast<ptrdiff_t>(from), bytes.size(), bytes.begin());
    return true;
}

// returns: why the source broke off; empty for its normal end
static std::string break_text(const live_source &source, int error)
{
    if (error != AVERROR_EOF) {
        return media_error_text(error);
    }
    if (source.io->error < 0 && source.io->error != AVERROR_EOF) {
        return media_error_text(source.io->error);
    }
    return file_cut_text(
        source.format->iformat->name,
        [&source](int64_t position, std::span<uint8_t> bytes) {
            return read_kept(source, position, bytes);
        },
        source.received_bytes);
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
    if (source.stopped) {
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
    if (!source.stopped) {
        const std::string text = break_text(source, error);
        if (!text.empty()) {
            source.fault = std::make_exception_ptr(
                failure(exit_code::input, source.path + ": breaks off (" + text + ")"));
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

// in: the longest time to wait for data
// returns: whether data are there to be read
static bool has_input(std::span<live_source *const> sources, milliseconds time)
{
    std::vector<pollfd> waited;
    for (const live_source *const source : sources) {
        if (!source->ended) {
            if (source->io->buf_ptr < source->io->buf_end || !source->backlog.empty()) {
                return true;
            }
            waited.push_back({source->descriptor, POLLIN, 0});
        }
    }
    return poll(waited.data(), waited.size(), static_cast<int>(time.count())) > 0;
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
        (void)has_input(sources, std::min(step, kHookInterval));
        for (live_source *const source : sources) {
            if (!source->ended && has_input({&source, 1}, milliseconds(0))) {
                (void)demux(*source);
            }
        }
    }
    // The demuxer still holds older data.
    for (live_source *const source : sources) {
        const int64_t received_bytes = source->received_bytes;
        while (!source->ended && source->received_bytes == received_bytes) {
            (void)demux(*source);
        }
        if (source->fault) {
            std::rethrow_exception(source->fault);
        }
    }
}

void live_source_stop(live_source &source)
{
    source.stops = true;
}

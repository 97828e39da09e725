#include "client/input/live_io.h"

#include "client/failure.h"
#include "client/input/media_format.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The hook is called this long after data stop arriving, and then in its interval.
static constexpr milliseconds kShortWait(20);

// Room in a pipe for a writer that fills its outputs in turn.
static constexpr int kPipeBytes = 1 << 20;

// How much is read ahead from the input that is not waited for.
static constexpr size_t kBacklogBytesMax = 1 << 24;

// What the check of the end needs.
static constexpr size_t kHeadBytes = 4096, kTailBytes = 4096;

static constexpr size_t kDatagramBytesMax = 1 << 16;

live_io::~live_io()
{
    if (context != nullptr) {
        av_freep(&context->buffer);
        avio_context_free(&context);
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

bool live_io_is(const std::string &path)
{
    struct stat status = {};
    const int error =
        is_standard_input(path) ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status);
    if (error != 0) {
        return is_remote(path);
    }
    return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || S_ISCHR(status.st_mode);
}

void live_io_open(live_io &io, const std::string &path, const wait_hook &on_wait)
{
    io.path = path;
    io.on_wait = on_wait;
    if (is_remote(path)) {
        return;
    }
    io.descriptor = is_standard_input(path)
                        ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                        : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (io.descriptor < 0) {
        fail_with_errno(exit_code::input, path);
    }
    if (isatty(io.descriptor) != 0) {
        throw failure(exit_code::input, path + ": is a terminal");
    }
    (void)fcntl(io.descriptor, F_SETPIPE_SZ, kPipeBytes); // a pipe may be refused more
}

// The hook's exceptions must not pass through the library, which is C.
static void call_hook(live_io &io, steady::time_point now, double silent_s)
{
    io.hook_called = now;
    try {
        io.stops = (io.on_wait && io.on_wait(silent_s)) || io.stops;
    } catch (...) {
        io.fault = std::current_exception();
        io.stops = true;
    }
}

// Calls the hook when it is due.
// returns: false when the source is to end
static bool keep_waiting(live_io &io)
{
    const steady::time_point now = steady::now();
    const steady::duration silent = now - io.read_begun;
    const bool is_first = io.hook_called < io.read_begun;
    if (is_first ? silent >= kShortWait : now - io.hook_called >= kHookInterval) {
        call_hook(io, now, std::chrono::duration<double>(silent).count());
    }
    return !io.stops;
}

static int on_interrupt(void *opaque)
{
    return keep_waiting(*static_cast<live_io *>(opaque)) ? 0 : 1;
}

// Waits for data of the source or of its companion.
// returns: as poll(), for the source alone
static int await_data(live_io &io, milliseconds time)
{
    live_io *const other = io.companion;
    const bool has_room = other != nullptr && other->backlog.size() < kBacklogBytesMax;
    pollfd waited[] = {{io.descriptor, POLLIN, 0}, {has_room ? other->descriptor : -1, POLLIN, 0}};
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
            io.companion = nullptr;
        }
    }
    return waited[0].revents != 0 ? 1 : 0;
}

static int read_backlog(live_io &io, uint8_t *buffer, size_t size)
{
    const size_t taken = std::min(size, io.backlog.size());
    const auto end = io.backlog.begin() + static_cast<ptrdiff_t>(taken);
    std::copy(io.backlog.begin(), end, buffer);
    io.backlog.erase(io.backlog.begin(), end);
    return static_cast<int>(taken);
}

static int read_descriptor(live_io &io, uint8_t *buffer, size_t size)
{
    if (!io.backlog.empty()) {
        return read_backlog(io, buffer, size);
    }
    for (;;) {
        const bool is_first = io.hook_called < io.read_begun;
        const int ready = await_data(io, is_first ? kShortWait : kHookInterval);
        if (ready < 0 && errno != EINTR) {
            return AVERROR(errno);
        }
        if (ready <= 0) {
            if (!keep_waiting(io)) {
                return AVERROR_EXIT;
            }
            continue;
        }
        const ssize_t got = read(io.descriptor, buffer, size);
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
        begin +=
            kExtensionHeadBytes + size_t{4} * (size_t{packet[begin + 2]} << 8 | packet[begin + 3]);
    }
    const size_t padding = has_padding ? packet.back() : 0;
    const size_t end = packet.size() - std::min(padding, packet.size());
    packet.resize(end);
    const size_t stripped = std::min(begin, end);
    packet.erase(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(stripped));
}

static int read_rtp(live_io &io, uint8_t *buffer, size_t size)
{
    while (io.datagram.empty()) {
        io.datagram.resize(kDatagramBytesMax);
        const int got = avio_read_partial(io.remote, io.datagram.data(), kDatagramBytesMax);
        io.datagram.resize(static_cast<size_t>(std::max(got, 0)));
        if (got <= 0) {
            return got < 0 ? got : AVERROR_EOF;
        }
        strip_rtp(io.datagram);
    }
    const size_t taken = std::min(size, io.datagram.size());
    const auto end = io.datagram.begin() + static_cast<ptrdiff_t>(taken);
    std::copy(io.datagram.begin(), end, buffer);
    io.datagram.erase(io.datagram.begin(), end);
    return static_cast<int>(taken);
}

static void note_received(live_io &io, std::span<const uint8_t> bytes)
{
    io.received_bytes += static_cast<int64_t>(bytes.size());
    const size_t room = kHeadBytes - io.head.size();
    const auto head = bytes.first(std::min(room, bytes.size()));
    io.head.insert(io.head.end(), head.begin(), head.end());
    const auto last = bytes.last(std::min(kTailBytes, bytes.size()));
    io.tail.insert(io.tail.end(), last.begin(), last.end());
    if (io.tail.size() > 2 * kTailBytes) {
        io.tail.erase(io.tail.begin(), io.tail.end() - static_cast<ptrdiff_t>(kTailBytes));
    }
}

static int read_io(void *opaque, uint8_t *buffer, int size)
{
    live_io &io = *static_cast<live_io *>(opaque);
    io.read_begun = steady::now();
    const size_t room = static_cast<size_t>(size);
    int got = AVERROR_EXIT;
    if (!io.stops) {
        got = io.remote == nullptr ? read_descriptor(io, buffer, room)
              : io.is_rtp          ? read_rtp(io, buffer, room)
                                   : avio_read_partial(io.remote, buffer, size);
    }
    if (got <= 0) {
        io.stopped = io.stops;
        return got == 0 ? AVERROR_EOF : got;
    }
    note_received(io, {buffer, static_cast<size_t>(got)});
    const steady::time_point now = steady::now();
    if (now - io.hook_called >= kHookInterval) { // data may arrive without a packet in them
        call_hook(io, now, 0);
    }
    return got;
}

static int64_t seek_io(void *opaque, int64_t offset, int whence)
{
    live_io &io = *static_cast<live_io *>(opaque);
    io.read_begun = steady::now();
    return (whence & AVSEEK_SIZE) != 0 ? avio_size(io.remote)
                                       : avio_seek(io.remote, offset, whence);
}

static void connect(live_io &io)
{
    static constexpr char kRtp[] = "rtp://";
    std::string url = io.path;
    io.is_rtp = url.starts_with(kRtp);
    if (io.is_rtp) {
        url.replace(0, std::strlen(kRtp), "udp://");
    }
    io.read_begun = steady::now();
    AVDictionary *options = nullptr;
    // Datagrams that come while the recorder is busy are lost; the connection is not.
    av_dict_set(&options, "overrun_nonfatal", "1", 0);
    const AVIOInterruptCB interrupt = {on_interrupt, &io};
    av_log_set_level(AV_LOG_QUIET); // this program reports in its own words
    avformat_network_init();
    const int error = avio_open2(&io.remote, url.c_str(), AVIO_FLAG_READ, &interrupt, &options);
    av_dict_free(&options);
    if (io.fault) {
        std::rethrow_exception(io.fault);
    }
    if (error < 0) {
        throw failure(exit_code::input, io.path + ": " + media_error_text(error));
    }
}

void live_io_begin(live_io &io)
{
    if (io.descriptor < 0) {
        connect(io);
    }
    uint8_t *const buffer = static_cast<uint8_t *>(av_malloc(kIoBufferBytes));
    const bool seeks = io.remote != nullptr && (io.remote->seekable & AVIO_SEEKABLE_NORMAL) != 0;
    io.context = avio_alloc_context(buffer, kIoBufferBytes, 0, &io, read_io, nullptr,
                                    seeks ? seek_io : nullptr);
    if (buffer == nullptr || io.context == nullptr) {
        throw std::bad_alloc();
    }
}

bool live_io_has_input(const live_io &io)
{
    pollfd waited = {io.descriptor, POLLIN, 0};
    return io.context->buf_ptr < io.context->buf_end || !io.backlog.empty() ||
           poll(&waited, 1, 0) > 0;
}

bool live_io_read_kept(const live_io &io, int64_t position, std::span<uint8_t> bytes)
{
    const int64_t tail_begin = io.received_bytes - static_cast<int64_t>(io.tail.size());
    const bool is_in_tail = position >= tail_begin;
    const std::vector<uint8_t> &kept = is_in_tail ? io.tail : io.head;
    const int64_t from = position - (is_in_tail ? tail_begin : 0);
    if (from + static_cast<int64_t>(bytes.size()) > static_cast<int64_t>(kept.size())) {
        return false;
    }
    std::copy_n(kept.begin() + static_cast<ptrdiff_t>(from), bytes.size(), bytes.begin());
    return true;
}

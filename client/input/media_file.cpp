#include "client/input/media_file.h"

#include "client/failure.h"
#include "client/input/file_end.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

media_file::~media_file()
{
    if (live == nullptr) {
        avformat_close_input(&format);
    }
    if (io != nullptr) {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}

static int read_io(void *opaque, uint8_t *buffer, int size)
{
    media_file *const file = static_cast<media_file *>(opaque);
    ssize_t got = 0;
    do {
        got = pread(file->descriptor, buffer, static_cast<size_t>(size), file->position);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        return AVERROR(errno);
    }
    file->position += got;
    return got == 0 ? AVERROR_EOF : static_cast<int>(got);
}

static int64_t seek_io(void *opaque, int64_t offset, int whence)
{
    media_file *const file = static_cast<media_file *>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE:
        return file->size;
    case SEEK_SET:
        break;
    case SEEK_CUR:
        offset += file->position;
        break;
    case SEEK_END:
        offset += file->size;
        break;
    default:
        return AVERROR(EINVAL);
    }
    if (offset < 0) {
        return AVERROR(EINVAL);
    }
    file->position = offset;
    return offset;
}

static void open_descriptor(media_file &file)
{
    // Without O_NONBLOCK a pipe would block here. It is refused below.
    file.descriptor = open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status = {};
    if (file.descriptor < 0 || fstat(file.descriptor, &status) != 0) {
        throw failure(exit_code::input, file.path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw failure(exit_code::input, file.path + ": is not a regular file");
    }
    if (status.st_size == 0) {
        throw failure(exit_code::input, file.path + ": is empty");
    }
    file.size = status.st_size;
}

static void open_format(media_file &file, int pcm_rate)
{
    uint8_t *const buffer = static_cast<uint8_t *>(av_malloc(kIoBufferBytes));
    file.io = avio_alloc_context(buffer, kIoBufferBytes, 0, &file, read_io, nullptr, seek_io);
    if (buffer == nullptr || file.io == nullptr) {
        throw std::bad_alloc();
    }
    media_format_open(file.format, file.io, file.path, {.pcm_rate = pcm_rate});
}

bool media_file_has(const media_file &file, AVMediaType kind)
{
    return av_find_best_stream(file.format, kind, -1, -1, nullptr, 0) >= 0;
}

bool media_file_is_raw(const media_file &file)
{
    return std::strcmp(file.format->iformat->name, "h264") == 0;
}

// Demuxers report the end of the file also when an error or missing data makes them stop.
static void check_end(const media_file &file)
{
    if (file.io->error < 0 && file.io->error != AVERROR_EOF) {
        throw failure(exit_code::input,
                      file.path + ": breaks off (" + media_error_text(file.io->error) + ")");
    }
    const std::string cut = file_cut_text(file.format->iformat->name, file.descriptor, file.size);
    if (!cut.empty()) {
        throw failure(exit_code::input, file.path + ": breaks off (" + cut + ")");
    }
    const int entries = avformat_index_get_entries_count(file.stream);
    const AVIndexEntry *const last = avformat_index_get_entry(file.stream, entries - 1);
    if (last != nullptr && last->pos + last->size > file.size) {
        throw failure(exit_code::input,
                      file.path + ": breaks off (the file is shorter than its index says)");
    }
}

static packet_ptr demux(media_file &file)
{
    packet_ptr packet(av_packet_alloc());
    if (packet == nullptr) {
        throw std::bad_alloc();
    }
    for (;;) {
        const int error = av_read_frame(file.format, packet.get());
        if (error == AVERROR_EOF) {
            check_end(file);
            return nullptr;
        }
        if (error < 0) {
            throw failure(exit_code::input,
                          file.path + ": breaks off (" + media_error_text(error) + ")");
        }
        if (packet->stream_index == file.stream->index) {
            return packet;
        }
        av_packet_unref(packet.get());
    }
}

static void set_clock(media_file &file)
{
    file.clock.source = [&file] { return demux(file); };
    file.clock.time_base = file.stream->time_base;
    file.clock.wrap_bits = file.stream->pts_wrap_bits;
}

static void pick_stream(media_file &file, AVMediaType kind)
{
    const int index = av_find_best_stream(file.format, kind, -1, -1, nullptr, 0);
    if (index < 0) {
        throw failure(exit_code::input, file.path + ": holds no " + av_get_media_type_string(kind));
    }
    file.stream = file.format->streams[index];
    set_clock(file);
}

std::unique_ptr<media_file> media_file_open(const std::string &path, AVMediaType kind, int pcm_rate)
{
    std::unique_ptr<media_file> file = std::make_unique<media_file>();
    file->path = path;
    open_descriptor(*file);
    open_format(*file, pcm_rate);
    pick_stream(*file, kind);
    for (unsigned i = 0; i < file->format->nb_streams; i++) {
        AVStream *const stream = file->format->streams[i];
        stream->discard = stream == file->stream ? stream->discard : AVDISCARD_ALL;
    }
    return file;
}

std::unique_ptr<media_file> media_file_of(const std::shared_ptr<live_source> &live,
                                          AVMediaType kind)
{
    std::unique_ptr<media_file> file = std::make_unique<media_file>();
    file->path = live->path;
    file->live = live;
    file->format = live->format;
    pick_stream(*file, kind);
    (kind == AVMEDIA_TYPE_VIDEO ? live->video : live->audio).stream = file->stream;
    file->clock.source = [clock = &file->clock, live, kind] {
        return live_source_read(*live, kind, clock->is_late);
    };
    return file;
}

void media_file_join(media_file &one, media_file &other)
{
    struct stat first = {};
    struct stat second = {};
    if (one.live != nullptr && one.live == other.live) {
        stream_clock_join(one.clock, other.clock);
        return;
    }
    if (fstat(one.descriptor, &first) != 0 || fstat(other.descriptor, &second) != 0 ||
        first.st_dev != second.st_dev || first.st_ino != second.st_ino) {
        return;
    }
    stream_clock_join(one.clock, other.clock);
}

packet_ptr media_file_read(media_file &file)
{
    return stream_clock_read(file.clock);
}

std::optional<int64_t> media_file_time_us(const media_file &file, int64_t stamp)
{
    if (stamp == AV_NOPTS_VALUE) {
        return std::nullopt;
    }
    return av_rescale_q(stamp, file.stream->time_base, kMicroseconds);
}

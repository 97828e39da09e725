// One stream of one input.
#ifndef CLIENT_INPUT_MEDIA_FILE_H
#define CLIENT_INPUT_MEDIA_FILE_H

#include "client/input/av_ptr.h"
#include "client/input/live_source.h"
#include "client/input/media_format.h"
#include "client/input/stream_clock.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

struct media_file {
    std::string path;
    std::shared_ptr<live_source> live; // then the owner of the format; the next four are not used
    int descriptor = -1;
    int64_t position = 0; // next byte that the demuxer reads
    int64_t size = 0;
    AVIOContext *io = nullptr;
    AVFormatContext *format = nullptr;
    AVStream *stream = nullptr;
    stream_clock clock;

    media_file() = default;
    media_file(const media_file &) = delete;
    media_file &operator=(const media_file &) = delete;
    ~media_file();
};

// Opens a file and picks its best stream of the kind; only this stream is read. The file stays
// open, so that the path may be replaced later.
// in: pcm_rate: of bare 16-bit stereo PCM in Hz; 0 for other formats
// returns: the file
// throws: `failure` when it cannot be read or holds no such stream
std::unique_ptr<media_file> media_file_open(const std::string &path, AVMediaType kind,
                                            int pcm_rate = 0);

// As above, for a live source that has begun.
std::unique_ptr<media_file> media_file_of(const std::shared_ptr<live_source> &live,
                                          AVMediaType kind);

// returns: whether the file holds a stream of the kind
bool media_file_has(const media_file &file, AVMediaType kind);

// returns: whether the file is a bare stream of access units, without time stamps
bool media_file_is_raw(const media_file &file);

// Lets two streams share one clock if both are of the same file. Call before the first packet of
// either is read.
void media_file_join(media_file &one, media_file &other);

// returns: the stream's next packet, with time stamps on the clock's line; null at the end, and
//          while the clock waits for the other stream
// throws: `failure` when the file breaks off
packet_ptr media_file_read(media_file &file);

// in: a time stamp in the stream's time base
// returns: the time; nothing for AV_NOPTS_VALUE
std::optional<int64_t> media_file_time_us(const media_file &file, int64_t stamp);

#endif // CLIENT_INPUT_MEDIA_FILE_H

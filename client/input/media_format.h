// Opens FFmpeg's demuxer on an input.
#ifndef CLIENT_INPUT_MEDIA_FORMAT_H
#define CLIENT_INPUT_MEDIA_FORMAT_H

#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

inline constexpr int kDefaultFrameRate = 30; // of raw H.264 that states none
inline constexpr int kIoBufferBytes = 1 << 16;

// How an input is probed.
struct media_probe {
    int pcm_rate = 0; // Hz, of bare 16-bit stereo PCM, which is not probed
    bool is_live = false;
};

// in: io: the input, which the format does not own
// out: format: to be closed by the caller, also after a failure
// throws: `failure` for an input that is not readable
void media_format_open(AVFormatContext *&format, AVIOContext *io, const std::string &path,
                       const media_probe &probe);

// returns: the library's text for an error code
std::string media_error_text(int error);

#endif // CLIENT_INPUT_MEDIA_FORMAT_H

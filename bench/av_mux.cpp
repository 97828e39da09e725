#include "bench/av_mux.h"

#include "bench/programme_frames.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstring>

static constexpr int kBufferBytes = 0x8000; // as libavformat's own for a file

struct null_sink {
    AVFormatContext *format = nullptr;
    AVPacket *packet = nullptr;
    int64_t position = 0;
    int64_t size = 0;
};

static int write_nothing(void *opaque, uint8_t *, int bytes)
{
    null_sink *sink = static_cast<null_sink *>(opaque);
    sink->position += bytes;
    sink->size = std::max(sink->size, sink->position);
    return bytes;
}

static int64_t seek_nothing(void *opaque, int64_t offset, int whence)
{
    null_sink *sink = static_cast<null_sink *>(opaque);
    if (whence == AVSEEK_SIZE) {
        return sink->size;
    }
    const int64_t from = whence == SEEK_CUR ? sink->position : whence == SEEK_END ? sink->size : 0;
    sink->position = from + offset;
    return sink->position;
}

static void add_stream(AVFormatContext *format, const AVCodecParameters &parameters,
                       const uint8_t *config, size_t config_bytes)
{
    AVCodecParameters *own = avformat_new_stream(format, nullptr)->codecpar;
    *own = parameters;
    own->extradata =
        static_cast<uint8_t *>(av_mallocz(config_bytes + AV_INPUT_BUFFER_PADDING_SIZE));
    own->extradata_size = static_cast<int>(config_bytes);
    std::memcpy(own->extradata, config, config_bytes);
}

void av_mux_silence()
{
    av_log_set_level(AV_LOG_QUIET);
}

void *av_mux_open()
{
    null_sink *sink = new null_sink;
    avformat_alloc_output_context2(&sink->format, nullptr, "mp4", nullptr);
    sink->packet = av_packet_alloc();
    uint8_t *buffer = static_cast<uint8_t *>(av_malloc(kBufferBytes));
    sink->format->pb =
        avio_alloc_context(buffer, kBufferBytes, 1, sink, nullptr, write_nothing, seek_nothing);
    AVCodecParameters video = {};
    video.codec_type = AVMEDIA_TYPE_VIDEO;
    video.codec_id = AV_CODEC_ID_H264;
    video.width = 320;
    video.height = 240;
    AVCodecParameters audio = {};
    audio.codec_type = AVMEDIA_TYPE_AUDIO;
    audio.codec_id = AV_CODEC_ID_AAC;
    audio.sample_rate = 48000;
    audio.frame_size = 1024;
    av_channel_layout_default(&audio.ch_layout, 2);
    add_stream(sink->format, video, kAvcRecord, sizeof(kAvcRecord));
    add_stream(sink->format, audio, kAudioConfig, sizeof(kAudioConfig));
    sink->format->streams[0]->time_base = {1, 90000};
    sink->format->streams[1]->time_base = {1, 48000};
    return avformat_write_header(sink->format, nullptr) >= 0 ? sink : nullptr;
}

bool av_mux_write(void *context, const mp4_mux_putstream_t &frame, bool owned)
{
    null_sink *sink = static_cast<null_sink *>(context);
    const bool is_video = frame.m_iType == MUX_TYPE_VIDEO;
    AVPacket *packet = sink->packet;
    if (owned && av_new_packet(packet, frame.m_iDataSize) >= 0) {
        std::memcpy(packet->data, frame.m_pbyData, static_cast<size_t>(frame.m_iDataSize));
    } else {
        packet->data = const_cast<uint8_t *>(frame.m_pbyData); // read only
        packet->size = frame.m_iDataSize;
    }
    packet->stream_index = is_video ? 0 : 1;
    packet->flags = (frame.m_uiFlags & MUX_FRAME_KEY) != 0 || !is_video ? AV_PKT_FLAG_KEY : 0;
    packet->dts = packet->pts = int64_t{frame.m_uiTimeStamp} * (is_video ? 90 : 48);
    packet->duration = is_video ? 3000 : 1024;
    const bool written = av_write_frame(sink->format, packet) >= 0;
    av_packet_unref(packet);
    return written;
}

bool av_mux_close(void *context)
{
    null_sink *sink = static_cast<null_sink *>(context);
    const bool written = av_write_trailer(sink->format) >= 0;
    av_packet_free(&sink->packet);
    av_freep(&sink->format->pb->buffer);
    avio_context_free(&sink->format->pb);
    avformat_free_context(sink->format);
    delete sink;
    return written;
}

uint32_t av_count_frames(const char *name)
{
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, name, nullptr, nullptr) < 0) {
        return 0;
    }
    uint32_t frames = 0;
    AVPacket *packet = av_packet_alloc();
    for (; av_read_frame(format, packet) >= 0; frames++) {
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return frames;
}

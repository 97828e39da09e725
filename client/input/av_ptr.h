// Owning pointers to the records of the FFmpeg libraries.
#ifndef CLIENT_INPUT_AV_PTR_H
#define CLIENT_INPUT_AV_PTR_H

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswresample/swresample.h>
}

// The libraries' functions that free a record take the address of the pointer to it.
template <auto kFree>
struct av_deleter {
    template <typename Record>
    void operator()(Record *record) const
    {
        kFree(&record);
    }
};

using codec_ptr = std::unique_ptr<AVCodecContext, av_deleter<avcodec_free_context>>;
using frame_ptr = std::unique_ptr<AVFrame, av_deleter<av_frame_free>>;
using packet_ptr = std::unique_ptr<AVPacket, av_deleter<av_packet_free>>;
using resampler_ptr = std::unique_ptr<SwrContext, av_deleter<swr_free>>;

#endif // CLIENT_INPUT_AV_PTR_H

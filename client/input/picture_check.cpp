#include "client/input/picture_check.h"

#include "client/input/av_ptr.h"

#include <algorithm>
#include <vector>

// returns: false for a damaged picture or an error; true also when no picture is due
static bool is_output_intact(AVCodecContext *codec)
{
    const frame_ptr frame(av_frame_alloc());
    const int error = avcodec_receive_frame(codec, frame.get());
    if (error == AVERROR(EAGAIN) || error == AVERROR_EOF) {
        return true;
    }
    return error == 0 && frame->decode_error_flags == 0 &&
           (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
}

bool picture_decodes(std::span<const uint8_t> unit)
{
    const AVCodec *const decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
    const codec_ptr codec(avcodec_alloc_context3(decoder));
    const packet_ptr packet(av_packet_alloc());
    if (decoder == nullptr || codec == nullptr || packet == nullptr) {
        return true;
    }
    codec->thread_count = 1;
    codec->err_recognition = AV_EF_EXPLODE;
    if (avcodec_open2(codec.get(), decoder, nullptr) < 0 ||
        av_new_packet(packet.get(), static_cast<int>(unit.size())) < 0) {
        return true;
    }
    std::copy(unit.begin(), unit.end(), packet->data);
    return avcodec_send_packet(codec.get(), packet.get()) >= 0 && is_output_intact(codec.get()) &&
           avcodec_send_packet(codec.get(), nullptr) >= 0 && is_output_intact(codec.get());
}

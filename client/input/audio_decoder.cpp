#include "client/input/audio_decoder.h"

#include "client/failure.h"

std::unique_ptr<audio_decoder> audio_decoder_open(const std::string &path)
{
    return audio_decoder_of(media_file_open(path, AVMEDIA_TYPE_AUDIO));
}

std::unique_ptr<audio_decoder> audio_decoder_of(std::unique_ptr<media_file> file)
{
    std::unique_ptr<audio_decoder> audio = std::make_unique<audio_decoder>();
    audio->file = std::move(file);
    const std::string &path = audio->file->path;
    const AVCodecParameters &parameters = *audio->file->stream->codecpar;
    const AVCodec *const decoder = avcodec_find_decoder(parameters.codec_id);
    audio->codec.reset(avcodec_alloc_context3(decoder));
    if (decoder != nullptr && audio->codec != nullptr) {
        audio->codec->pkt_timebase = audio->file->stream->time_base;
    }
    if (decoder == nullptr || audio->codec == nullptr ||
        avcodec_parameters_to_context(audio->codec.get(), &parameters) < 0 ||
        avcodec_open2(audio->codec.get(), decoder, nullptr) < 0) {
        throw failure(exit_code::unsupported, path + ": its audio (" +
                                                  avcodec_get_name(parameters.codec_id) +
                                                  ") cannot be decoded");
    }
    return audio;
}

frame_ptr audio_decoder_next(audio_decoder &audio)
{
    frame_ptr frame(av_frame_alloc());
    for (;;) {
        const int error = avcodec_receive_frame(audio.codec.get(), frame.get());
        if (error == AVERROR_EOF) {
            return nullptr;
        }
        if (error == 0) {
            if (frame->nb_samples > 0 && frame->sample_rate > 0) {
                return frame;
            }
            continue;
        }
        audio.damaged += error != AVERROR(EAGAIN) ? 1 : 0;
        const packet_ptr packet = media_file_read(*audio.file);
        if (audio.file->clock.waits) {
            return nullptr;
        }
        if (avcodec_send_packet(audio.codec.get(), packet.get()) < 0) {
            if (packet == nullptr) { // the decoder knows of the end already
                return nullptr;
            }
            audio.damaged++;
        }
    }
}

#include "client/input/audio_decoder.h"

#include "client/failure.h"

#include <cstring>
#include <utility>

// Its sound, if it is AAC of this kind, is in the form of ADTS.
static bool is_broadcast(const media_file &file)
{
    return std::strcmp(file.format->iformat->name, "mpegts") == 0;
}

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
    if (parameters.codec_id == AV_CODEC_ID_AAC && is_broadcast(*audio->file)) {
        stream_clock &clock = audio->file->clock;
        audio->frames = {.source = std::move(clock.source), .time_base = clock.time_base};
        clock.source = [&frames = audio->frames] { return adts_frames_read(frames); };
    }
    return audio;
}

// Notes that the last packet cannot be decoded. What it held is missing from its begin on, and is
// noted there when the next frame shows how long that is.
static void note_damaged(audio_decoder &audio)
{
    audio.damaged++;
    loss_note(audio.losses, {loss_track::audio, loss_kind::sound_left_out, audio.packet_us, 0, 1});
}

static void follow_packet(audio_decoder &audio, const AVPacket &packet)
{
    const stream_clock &clock = audio.file->clock;
    const int64_t duration_us = av_rescale_q(packet.duration, clock.time_base, kMicroseconds);
    audio.packet_us = media_file_time_us(*audio.file, packet.pts).value_or(audio.packet_end_us);
    audio.packet_end_us = audio.packet_us + duration_us;
}

// Notes a packet that the decoder has taken although bytes of it are missing or wrong.
static void note_corrupt(audio_decoder &audio, const AVPacket &packet)
{
    if ((packet.flags & AV_PKT_FLAG_CORRUPT) != 0) {
        loss_note(audio.losses, {loss_track::audio, loss_kind::sound_damaged, audio.packet_us,
                                 audio.packet_end_us - audio.packet_us, 1});
    }
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
        if (error != AVERROR(EAGAIN)) {
            note_damaged(audio);
        }
        const packet_ptr packet = media_file_read(*audio.file);
        if (audio.file->clock.waits) {
            return nullptr;
        }
        if (packet != nullptr) {
            follow_packet(audio, *packet);
        }
        if (avcodec_send_packet(audio.codec.get(), packet.get()) < 0) {
            if (packet == nullptr) { // the decoder knows of the end already
                return nullptr;
            }
            note_damaged(audio);
        } else if (packet != nullptr) {
            note_corrupt(audio, *packet);
        }
    }
}

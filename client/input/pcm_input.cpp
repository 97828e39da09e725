#include "client/input/pcm_input.h"

#include "client/failure.h"

#include <algorithm>

std::unique_ptr<pcm_input> pcm_input_open(const std::string &path)
{
    std::unique_ptr<pcm_input> pcm = std::make_unique<pcm_input>();
    pcm->decoder = audio_decoder_open(path);
    pcm->held = audio_decoder_next(*pcm->decoder);
    if (pcm->held == nullptr) {
        throw failure(exit_code::input, path + ": holds no audio that can be decoded");
    }
    AVFrame &first = *pcm->held;
    pcm->rate = first.sample_rate;
    pcm->channels = first.ch_layout.nb_channels;
    pcm->format = first.format;
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, pcm->channels);
    SwrContext *made = nullptr;
    int error =
        swr_alloc_set_opts2(&made, &layout, AV_SAMPLE_FMT_S16, pcm->rate, &layout,
                            static_cast<AVSampleFormat>(pcm->format), pcm->rate, 0, nullptr);
    pcm->converter.reset(made);
    error = error >= 0 ? swr_init(made) : error;
    if (error < 0) {
        throw failure(exit_code::unsupported, path +
                                                  ": its samples cannot be converted to 16 bits (" +
                                                  media_error_text(error) + ")");
    }
    return pcm;
}

static void queue_frame(pcm_input &pcm, const AVFrame &frame)
{
    if (frame.sample_rate != pcm.rate || frame.ch_layout.nb_channels != pcm.channels ||
        frame.format != pcm.format) {
        throw failure(exit_code::unsupported, pcm.decoder->file->path +
                                                  ": changes its sampling rate, its channels or "
                                                  "its sample format within the file");
    }
    const size_t begin = pcm.queue.size();
    const size_t channels = static_cast<size_t>(pcm.channels);
    pcm.queue.resize(begin + static_cast<size_t>(frame.nb_samples) * channels);
    uint8_t *out = reinterpret_cast<uint8_t *>(pcm.queue.data() + begin);
    const int got =
        swr_convert(pcm.converter.get(), &out, frame.nb_samples,
                    const_cast<const uint8_t **>(frame.extended_data), frame.nb_samples);
    pcm.decoder->damaged += got < 0 ? 1u : 0u;
    pcm.queue.resize(begin + static_cast<size_t>(std::max(got, 0)) * channels);
}

// The audio before the place where the file breaks off is still encoded.
static frame_ptr decode_frame(pcm_input &pcm)
{
    try {
        return audio_decoder_next(*pcm.decoder);
    } catch (const failure &broken) {
        if (broken.code != exit_code::input) {
            throw;
        }
        pcm.fault = broken.what();
        return nullptr;
    }
}

size_t pcm_input_next(pcm_input &pcm, std::span<int16_t> frame)
{
    const auto begin = pcm.queue.begin();
    pcm.queue.erase(begin, begin + static_cast<ptrdiff_t>(pcm.queue_read));
    while (pcm.queue.size() < frame.size() && pcm.held != nullptr) {
        queue_frame(pcm, *pcm.held);
        pcm.held = decode_frame(pcm);
    }
    pcm.queue_read = std::min(pcm.queue.size(), frame.size());
    const auto end = std::copy_n(pcm.queue.begin(), pcm.queue_read, frame.begin());
    std::fill(end, frame.end(), int16_t{0});
    const size_t samples = pcm.queue_read / static_cast<size_t>(pcm.channels);
    pcm.samples += samples;
    return samples;
}

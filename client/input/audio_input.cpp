#include "client/input/audio_input.h"

#include "client/failure.h"
#include "client/input/aac_rates.h"

#include <algorithm>
#include <array>
#include <cstdlib>

static constexpr size_t kChannels = 2;

// A time stamp this close to the running count of samples is taken as rounded. A lost frame is
// further away, and the whole range is shorter than a picture.
static constexpr int64_t kDriftToleranceUs = 15'000;

// Sound that begins at most this much later than the pictures is not missing there.
static constexpr int64_t kLateBeginUs = 1 * kSecondUs;

static bool same_format(const AVFrame &one, const AVFrame &other)
{
    return one.format == other.format && one.sample_rate == other.sample_rate &&
           av_channel_layout_compare(&one.ch_layout, &other.ch_layout) == 0;
}

// Queues the resampled frame.
// in: a frame, or null for the samples that the resampler still holds
static void queue_resampled(audio_input &audio, const AVFrame *frame)
{
    if (audio.resampler == nullptr) {
        return;
    }
    const int in_samples = frame != nullptr ? frame->nb_samples : 0;
    const int room = swr_get_out_samples(audio.resampler.get(), in_samples);
    if (room <= 0) {
        return;
    }
    const size_t begin = audio.queue.size();
    audio.queue.resize(begin + static_cast<size_t>(room) * kChannels);
    std::array<uint8_t *, 1> out = {reinterpret_cast<uint8_t *>(audio.queue.data() + begin)};
    const uint8_t **const in =
        frame != nullptr ? const_cast<const uint8_t **>(frame->extended_data) : nullptr;
    int got = swr_convert(audio.resampler.get(), out.data(), room, in, in_samples);
    if (got < 0) {
        audio.decoder->damaged++;
        got = 0;
    }
    audio.queue.resize(begin + static_cast<size_t>(got) * kChannels);
    const int64_t skipped = std::min<int64_t>(audio.skip_due, got);
    const auto first = audio.queue.begin() + static_cast<ptrdiff_t>(begin);
    audio.queue.erase(first, first + static_cast<ptrdiff_t>(skipped) * 2);
    audio.skip_due -= skipped;
    audio.placed += got - skipped;
}

static void adapt_resampler(audio_input &audio, AVFrame &frame)
{
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        av_channel_layout_default(&frame.ch_layout, frame.ch_layout.nb_channels);
    }
    if (audio.resampler != nullptr && same_format(*audio.format, frame)) {
        return;
    }
    queue_resampled(audio, nullptr);
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    SwrContext *made = nullptr;
    int error = swr_alloc_set_opts2(&made, &stereo, AV_SAMPLE_FMT_S16, audio.rate, &frame.ch_layout,
                                    static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0,
                                    nullptr);
    audio.resampler.reset(made);
    if (error >= 0 && frame.ch_layout.nb_channels == 1) {
        static const double as_loud_on_either_side[kChannels] = {1, 1};
        error = swr_set_matrix(made, as_loud_on_either_side, 1);
    }
    if (error >= 0) {
        error = swr_init(made);
    }
    if (error < 0) {
        throw failure(exit_code::unsupported, audio.decoder->file->path +
                                                  ": its audio cannot be converted to stereo (" +
                                                  media_error_text(error) + ")");
    }
    audio.format.reset(av_frame_alloc());
    audio.format->format = frame.format;
    audio.format->sample_rate = frame.sample_rate;
    av_channel_layout_copy(&audio.format->ch_layout, &frame.ch_layout);
}

// Decodes the next frame into `held`.
// returns: false at the end
static bool decode_frame(audio_input &audio)
{
    audio.held = audio_decoder_next(*audio.decoder);
    return audio.held != nullptr;
}

static int64_t time_of_samples(const audio_input &audio, int64_t samples)
{
    return av_rescale(samples, kSecondUs, audio.rate);
}

static void note_loss(audio_input &audio, loss_kind kind, int64_t at, int64_t samples)
{
    loss_note(audio.losses, {loss_track::audio, kind, time_of_samples(audio, at),
                             time_of_samples(audio, samples), 0});
}

// Notes what is missing before the held frame, or overlaps it.
// in: the distance in samples from the end of the queue to the frame
static void note_step(audio_input &audio, int64_t away)
{
    const int64_t end = audio.placed - audio.skip_due;
    const int64_t missing = audio.waited + std::max<int64_t>(away, 0);
    if (missing > 0) {
        note_loss(audio, loss_kind::sound_missing, end - audio.waited, missing);
    }
    if (away < 0) {
        note_loss(audio, loss_kind::sound_overlaps, end, -away);
    }
}

int64_t audio_input_end_us(const audio_input &audio)
{
    return time_of_samples(audio, audio.placed - audio.skip_due - audio.waited);
}

// Decides how the held frame joins the queue: after silence if it begins later than the queue ends,
// without its first samples if it begins earlier.
// in: the frame's time
static void settle_frame(audio_input &audio, int64_t time_us, int64_t tolerance_us)
{
    const int64_t tolerance = av_rescale(tolerance_us, audio.rate, kSecondUs);
    const int64_t begin = av_rescale(time_us - audio.origin_us, audio.rate, kSecondUs);
    int64_t away = begin - (audio.placed - audio.skip_due);
    if (away > tolerance) { // a gap before the origin needs no silence
        const int64_t unheard = std::min(away, audio.skip_due);
        audio.skip_due -= unheard;
        away -= unheard;
    }
    note_step(audio, std::abs(away) > tolerance ? away : 0);
    audio.waited = 0;
    if (away > tolerance) {
        audio.silence_due = away;
        audio.placed += away;
    } else if (away < -tolerance) {
        audio.skip_due -= away;
    }
}

// returns: the held frame's time on the clock's line; without a time stamp, the last frame's end
static int64_t place_frame(audio_input &audio)
{
    const AVFrame &frame = *audio.held;
    const media_file &file = *audio.decoder->file;
    const int64_t time_us =
        media_file_time_us(file, frame.best_effort_timestamp).value_or(audio.end_us);
    audio.end_us = time_us + av_rescale(frame.nb_samples, kSecondUs, frame.sample_rate);
    return time_us;
}

// Adds samples to the queue.
// returns: false at the end
static bool extend_queue(audio_input &audio)
{
    if (audio.silence_due > 0) {
        const int64_t count = std::min(audio.silence_due, static_cast<int64_t>(kAudioBlockSamples));
        audio.queue.insert(audio.queue.end(), static_cast<size_t>(count) * kChannels, 0);
        audio.silence_due -= count;
        return true;
    }
    if (audio.held != nullptr) {
        adapt_resampler(audio, *audio.held);
        queue_resampled(audio, audio.held.get());
        audio.held.reset();
        return true;
    }
    if (audio.drained) {
        return false;
    }
    if (decode_frame(audio)) {
        settle_frame(audio, place_frame(audio), kDriftToleranceUs);
    } else if (audio.decoder->file->clock.waits) {
        audio.silence_due = kAudioBlockSamples;
        audio.placed += audio.silence_due;
        audio.waited += audio.silence_due;
    } else {
        audio.drained = true;
        queue_resampled(audio, nullptr);
    }
    return true;
}

std::unique_ptr<audio_input> audio_input_of(std::unique_ptr<media_file> file,
                                            media_file &video_file)
{
    std::unique_ptr<audio_input> audio = std::make_unique<audio_input>();
    audio->decoder = audio_decoder_of(std::move(file));
    media_file &input = *audio->decoder->file;
    media_file_join(input, video_file);
    input.clock.spreads_gaps = true;
    const bool has_frame = decode_frame(*audio);
    if (!has_frame && !input.clock.waits) {
        throw failure(exit_code::input, input.path + ": holds no audio that can be decoded");
    }
    const int rate = has_frame ? audio->held->sample_rate : input.stream->codecpar->sample_rate;
    audio->rate = is_encoder_rate(rate) ? rate : kDefaultRate;
    audio->begin_us = has_frame ? place_frame(*audio) : 0;
    return audio;
}

void audio_input_start_at(audio_input &audio, int64_t origin_us)
{
    if (audio.held == nullptr) { // it is late, and begins with silence
        audio.origin_us = origin_us;
        return;
    }
    const bool apart = origin_us < audio.begin_us - kAlignmentMaxUs;
    audio.origin_us = apart ? audio.begin_us : origin_us;
    if (apart) {
        stream_clock_part(audio.decoder->file->clock);
    }
    settle_frame(audio, audio.begin_us, 0);
    std::erase_if(audio.losses, [](const loss &first) {
        return first.kind == loss_kind::sound_overlaps || first.length_us < kLateBeginUs;
    });
}

bool audio_input_next(audio_input &audio, std::span<int16_t, kAudioBlockSamples * 2> block)
{
    audio.queue.erase(audio.queue.begin(),
                      audio.queue.begin() + static_cast<ptrdiff_t>(audio.queue_read));
    audio.queue_read = 0;
    while (audio.queue.size() < block.size() && extend_queue(audio)) {
    }
    const size_t got = std::min(audio.queue.size(), block.size());
    if (got == 0 && audio.tail_blocks++ > 0) {
        return false;
    }
    std::copy_n(audio.queue.begin(), got, block.begin());
    std::fill(block.begin() + static_cast<ptrdiff_t>(got), block.end(), int16_t{0});
    audio.queue_read = got;
    return true;
}

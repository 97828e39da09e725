#include "client/input/programme_input.h"

#include "client/failure.h"
#include "component/tdmbrec_interface.h"

#include <algorithm>
#include <limits>
#include <utility>

// Sound and pictures may end this far from each other: a broadcast that is cut anywhere ends so.
static constexpr int64_t kEndToleranceUs = 1 * kSecondUs;

static int64_t video_time_us(const programme_input &programme)
{
    return programme.next_video->time_us - programme.origin_us;
}

static int64_t audio_time_us(const programme_input &programme)
{
    return av_rescale(programme.audio_blocks * static_cast<int64_t>(kAudioBlockSamples), kSecondUs,
                      programme.audio->rate);
}

std::unique_ptr<programme_input> programme_open(const std::string &video_path,
                                                const std::string &audio_path,
                                                std::optional<AVRational> frame_rate)
{
    std::unique_ptr<programme_input> programme = std::make_unique<programme_input>();
    programme->video = video_input_open(video_path, frame_rate);
    media_file &file = *programme->video->file;
    const bool lacks_audio = video_path == audio_path && !media_file_has(file, AVMEDIA_TYPE_AUDIO);
    if (!lacks_audio) {
        programme->audio = audio_input_open(audio_path, file);
    }
    video_input_read_ahead(*programme->video);
    if (lacks_audio) {
        throw failure(exit_code::input,
                      audio_path + ": holds no audio (name another file with --audio)");
    }
    programme->next_video = video_input_next(*programme->video);
    programme->origin_us = programme->next_video->time_us;
    const int64_t between_us =
        file.clock.other != nullptr ? 0 : programme->audio->begin_us - programme->video->begin_us;
    audio_input_start_at(*programme->audio, programme->origin_us + between_us);
    file.clock.may_wait = true;
    programme->audio->decoder->file->clock.may_wait = true;
    programme->has_audio = audio_input_next(*programme->audio, programme->next_audio);
    return programme;
}

// Replaces the unit that the last call returned. This waits until now, so that the caller has used
// that unit before a failure.
static void refill(programme_input &programme)
{
    const std::optional<unit_kind> given = programme.given;
    programme.given.reset();
    if (given == unit_kind::video) {
        programme.next_video.reset();
        programme.next_video = video_input_next(*programme.video);
    } else if (given == unit_kind::audio) {
        programme.audio_blocks++;
        programme.has_audio = false;
        programme.has_audio = audio_input_next(*programme.audio, programme.next_audio);
        if (programme.video->file->clock.waits) {
            programme.next_video = video_input_next(*programme.video);
        }
    }
}

// Where a file with both streams breaks off in one, the units of the other up to there are kept.
static void refill_to_the_end(programme_input &programme)
{
    try {
        refill(programme);
    } catch (const failure &broken) {
        const bool is_one_file = programme.video->file->clock.other != nullptr;
        if (broken.code != exit_code::input || !is_one_file) {
            throw;
        }
        programme.fault = std::current_exception();
    }
}

// Takes over the losses that a stream has noted up to a time of the programme.
// in: the programme's begin on the line of these losses
static void take_losses(programme_input &programme, std::vector<loss> &noted, int64_t origin_us,
                        int64_t until_us)
{
    std::vector<loss> later;
    for (loss one : noted) {
        if (one.at_us - origin_us > until_us) {
            later.push_back(one);
            continue;
        }
        one.at_us -= origin_us;
        if (one.at_us >= 0) { // else before the programme
            loss_account_add(programme.losses, one);
        }
    }
    noted = std::move(later);
}

static void take_all_losses(programme_input &programme, int64_t until_us)
{
    video_input &video = *programme.video;
    audio_input &audio = *programme.audio;
    stream_clock &clock = video.file->clock;
    if (clock.other == nullptr) { // each has its own clock
        for (loss &one : clock.losses) {
            one.track = loss_track::video;
        }
        for (loss &one : audio.decoder->file->clock.losses) {
            one.track = loss_track::audio;
        }
    }
    take_losses(programme, clock.losses, programme.origin_us, until_us);
    take_losses(programme, video.losses, programme.origin_us, until_us);
    take_losses(programme, audio.decoder->file->clock.losses, audio.origin_us, until_us);
    take_losses(programme, audio.decoder->losses, audio.origin_us, until_us);
    take_losses(programme, audio.losses, 0, until_us);
}

// Completes the account at the end of the programme.
static void account_for_end(programme_input &programme)
{
    take_all_losses(programme, std::numeric_limits<int64_t>::max() / 2);
    const video_input &video = *programme.video;
    const int64_t video_end_us =
        *video.last_us + video_input_interval_us(video) - programme.origin_us;
    const int64_t audio_end_us = audio_input_end_us(*programme.audio);
    if (audio_end_us + kEndToleranceUs < video_end_us) {
        loss_account_add(programme.losses, {loss_track::audio, loss_kind::sound_ended, audio_end_us,
                                            video_end_us - audio_end_us, 0});
    } else if (video_end_us + kEndToleranceUs < audio_end_us) {
        loss_account_add(programme.losses, {loss_track::video, loss_kind::pictures_ended,
                                            video_end_us, audio_end_us - video_end_us, 0});
    }
}

// Completes the account where the input breaks off.
static void account_for_break(programme_input &programme)
{
    account_for_end(programme);
    const int64_t end_us =
        std::max(*programme.video->last_us - programme.origin_us, audio_time_us(programme));
    loss_account_add(programme.losses, {loss_track::both, loss_kind::broken_off, end_us, 0, 0});
}

std::optional<programme_unit> programme_next(programme_input &programme)
{
    try {
        refill_to_the_end(programme);
    } catch (const failure &broken) {
        if (broken.code == exit_code::input) {
            account_for_break(programme);
        }
        throw;
    }
    if (!programme.next_video && !programme.has_audio) {
        if (programme.fault) {
            account_for_break(programme);
            std::rethrow_exception(programme.fault);
        }
        account_for_end(programme);
        return std::nullopt;
    }
    const bool video_first =
        programme.next_video &&
        (!programme.has_audio || video_time_us(programme) <= audio_time_us(programme));
    take_all_losses(programme, video_first ? video_time_us(programme) : audio_time_us(programme));
    if (video_first) {
        programme.given = unit_kind::video;
        const access_unit &unit = programme.next_video->unit;
        return programme_unit{unit_kind::video, video_time_us(programme), unit.bytes, unit.idr};
    }
    programme.given = unit_kind::audio;
    const std::span<const int16_t> samples = programme.next_audio;
    return programme_unit{unit_kind::audio,
                          audio_time_us(programme),
                          {reinterpret_cast<const uint8_t *>(samples.data()), samples.size_bytes()},
                          false};
}

static void remark(std::vector<std::string> &remarks, const media_file &file, const char *what,
                   unsigned count)
{
    if (count > 0) {
        remarks.push_back(file.path + ": " + what + ": " + std::to_string(count));
    }
}

std::vector<std::string> programme_opening_remarks(const programme_input &programme)
{
    const video_input &video = *programme.video;
    const AVCodecParameters &picture = *video.file->stream->codecpar;
    std::vector<std::string> remarks;
    if (picture.width != TDMBREC_PICTURE_WIDTH || picture.height != TDMBREC_PICTURE_HEIGHT) {
        remarks.push_back(video.file->path + ": has pictures of " + std::to_string(picture.width) +
                          "x" + std::to_string(picture.height) + "; the file will announce " +
                          std::to_string(TDMBREC_PICTURE_WIDTH) + "x" +
                          std::to_string(TDMBREC_PICTURE_HEIGHT) + ", which some players go by");
    }
    remark(remarks, *video.file, "pictures left out before the first IDR picture", video.leading);
    return remarks;
}

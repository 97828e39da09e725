#include "client/input/programme_input.h"

#include "client/failure.h"
#include "component/tdmbrec_interface.h"

static int64_t video_time_us(const programme_input &programme)
{
    return programme.next_video->time_us - programme.origin_us;
}

static int64_t audio_time_us(const programme_input &programme)
{
    return av_rescale(programme.audio_blocks * static_cast<int64_t>(kAudioBlockSamples), kSecondUs,
                      programme.audio->rate);
}

int programme_sample_rate(const programme_input &programme)
{
    return programme.audio != nullptr ? programme.audio->rate : kDefaultRate;
}

int64_t programme_block_us(const programme_input &programme)
{
    return av_rescale(kAudioBlockSamples, kSecondUs, programme_sample_rate(programme));
}

std::optional<int64_t> programme_sound_time_us(const programme_input &programme)
{
    return programme.has_audio ? std::optional(audio_time_us(programme)) : std::nullopt;
}

// Opens the sound, unless the file of both streams has none.
// returns: whether it has none
static bool open_audio(programme_input &programme, const std::string &video_path,
                       const std::string &audio_path)
{
    media_file &file = *programme.video->file;
    const bool is_lacking = video_path == audio_path && !media_file_has(file, AVMEDIA_TYPE_AUDIO);
    if (!is_lacking) {
        programme.audio = audio_input_open(audio_path, file);
    }
    return is_lacking;
}

static void begin_audio(programme_input &programme)
{
    stream_clock &clock = programme.video->file->clock;
    const int64_t between_us =
        clock.other != nullptr ? 0 : programme.audio->begin_us - programme.video->begin_us;
    audio_input_start_at(*programme.audio,
                         programme.origin_us + between_us + programme_block_us(programme));
    clock.may_wait = true;
    programme.audio->decoder->file->clock.may_wait = true;
    programme.has_audio = audio_input_next(*programme.audio, programme.next_audio);
}

std::unique_ptr<programme_input> programme_open(const std::string &video_path,
                                                const std::string &audio_path,
                                                const programme_settings &settings)
{
    std::unique_ptr<programme_input> programme = std::make_unique<programme_input>();
    programme->video = video_input_open(video_path, settings.frame_rate);
    programme->video->may_change = settings.may_change;
    const bool lacks_audio = settings.with_audio && open_audio(*programme, video_path, audio_path);
    video_input_read_ahead(*programme->video);
    if (lacks_audio) {
        throw failure(exit_code::input,
                      audio_path + ": holds no audio (name another file with --audio, or add "
                                   "--no-audio)");
    }
    programme->next_video = video_input_next(*programme->video);
    programme->origin_us = programme->next_video->time_us;
    if (programme->audio != nullptr) {
        begin_audio(*programme);
    }
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

std::optional<programme_unit> programme_next(programme_input &programme)
{
    refill_to_the_end(programme);
    if (!programme.next_video && !programme.has_audio) {
        if (programme.fault) {
            std::rethrow_exception(programme.fault);
        }
        return std::nullopt;
    }
    // A picture waits for the sound that ends before it.
    const bool video_first =
        programme.next_video &&
        (!programme.has_audio ||
         video_time_us(programme) < audio_time_us(programme) + programme_block_us(programme));
    if (video_first) {
        programme.given = unit_kind::video;
        const video_unit &next = *programme.next_video;
        return programme_unit{unit_kind::video, video_time_us(programme), next.unit.bytes,
                              next.unit.idr, next.new_format};
    }
    programme.given = unit_kind::audio;
    const std::span<const int16_t> samples = programme.next_audio;
    return programme_unit{unit_kind::audio,
                          audio_time_us(programme),
                          {reinterpret_cast<const uint8_t *>(samples.data()), samples.size_bytes()},
                          false,
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

std::vector<std::string> programme_closing_remarks(const programme_input &programme)
{
    const video_input &video = *programme.video;
    std::vector<std::string> remarks;
    remark(remarks, *video.file, "damaged access units left out", video.damaged);
    remark(remarks, *video.file, "damaged parameter sets left out",
           video_input_damaged_sets(video));
    if (programme.audio == nullptr) {
        remark(remarks, *video.file, "jumps of the clock closed", video.file->clock.jumps);
        return remarks;
    }
    const audio_input &audio = *programme.audio;
    const media_file &audio_file = *audio.decoder->file;
    remark(remarks, audio_file, "damaged audio packets left out", audio.decoder->damaged);
    if (video.file->clock.other != nullptr) {
        remark(remarks, audio_file, "jumps of the clock closed",
               video.file->clock.jumps + audio_file.clock.jumps);
        return remarks;
    }
    remark(remarks, *video.file, "jumps of the video's clock closed", video.file->clock.jumps);
    remark(remarks, audio_file, "jumps of the audio's clock closed", audio_file.clock.jumps);
    return remarks;
}
